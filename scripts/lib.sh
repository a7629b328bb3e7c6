# shellcheck shell=bash
# What the scripts share: saying what is done, and preparing a machine. To be sourced.

say() {
    printf 'scripts/%s: %s\n' "${0##*/}" "$*"
}

die() {
    printf 'scripts/%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

have() {
    command -v "$1" >/dev/null 2>&1
}

# as_root COMMAND...: with sudo where we are not root.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif have sudo; then
        sudo "$@"
    else
        die "neither root nor sudo; run as root: $*"
    fi
}

# install_packages PACKAGE...: nothing is asked of the network when no package is named.
install_packages() {
    [ $# -gt 0 ] || return 0
    have apt-get || die "missing on this machine, and there is no apt-get to install it: $*"
    say "installing what is missing: $*"
    refresh_lists
    apt_get install "$@" || die "could not install: $*"
}

# refresh_lists: once, before the first thing that is installed.
refresh_lists() {
    [ -z "${apt_lists_are_fresh:-}" ] || return 0
    as_root apt-get update -qq || die "apt-get update failed"
    apt_lists_are_fresh=yes
}

# apt_get COMMAND ARGUMENT...: without questions.
apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get "$1" -qq -y --no-install-recommends "${@:2}" >/dev/null
}

# compiler_makes FLAGS...: whether the compiler builds a program with them.
compiler_makes() {
    printf '#include <cstdio>\n#include <thread>\nint main() { std::thread([] { std::puts(""); }).join(); }\n' |
        "$CXX" "$@" -pthread -x c++ -o /dev/null - >/dev/null 2>&1
}

# The flags of the x86-32 toolchain file.
flags_of_width_32() {
    printf '%s\n' -m32
    if [ -d /usr/include/x86_64-linux-gnu ]; then
        printf '%s\n' -idirafter /usr/include/x86_64-linux-gnu
    fi
}

# prepare_32: the compiler's multilib. The versioned package can stand beside cross compilers, the plain one cannot.
prepare_32() {
    local -a flags
    mapfile -t flags < <(flags_of_width_32)
    compiler_makes "${flags[@]}" && return 0
    local version
    version=$("$CXX" -dumpversion) || die "$CXX does not run"
    install_packages "g++-${version%%.*}-multilib"
    compiler_makes "${flags[@]}" || die "$CXX builds no 32-bit programs on this machine"
}

# prepare_processor PROCESSOR ARCHITECTURE: a cross compiler, and the emulator that runs what it builds. The versioned
# compilers leave the 32-bit one of this machine in place, the plain ones would remove it.
prepare_processor() {
    local -a packages=()
    have "$2-g++-12" || packages+=("g++-12-$2")
    have "qemu-$1-static" || packages+=(qemu-user-static)
    install_packages ${packages[@]+"${packages[@]}"}
}

# The fuzz targets' compiler, as the preset fuzz-32 uses it.
clang_makes_fuzzers() {
    local -a flags
    mapfile -t flags < <(flags_of_width_32)
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned int) { return 0; }\n' |
        clang++ "${flags[@]}" -fsanitize=fuzzer,address,undefined -x c++ -o /dev/null - >/dev/null 2>&1
}

# prepare_fuzz: clang and the runtime of its fuzzer and sanitizers, whose package for the 64-bit machine has the 32-bit
# libraries too.
prepare_fuzz() {
    have clang++ || install_packages clang
    clang_makes_fuzzers && return 0
    local version
    version=$(clang++ -dumpversion) || die "clang++ does not run"
    install_packages "libclang-rt-${version%%.*}-dev"
    clang_makes_fuzzers || die "clang++ builds no 32-bit fuzz targets on this machine"
}

# prepare_tools: what the developer's tools are built from. The compiler is asked: it knows where headers are.
prepare_tools() {
    local -a packages=()
    local header package
    while read -r header package; do
        printf '#include <%s>\n' "$header" | "$CXX" -x c++ -E -o /dev/null - >/dev/null 2>&1 || packages+=("$package")
    done <<'END'
histedit.h libedit-dev
nlohmann/json.hpp nlohmann-json3-dev
zlib.h zlib1g-dev
END
    install_packages ${packages[@]+"${packages[@]}"}
}

# prepare_to_build PRESET...: compiler and build tools for these presets.
prepare_to_build() {
    local -a packages=()
    CXX=${CXX:-g++}
    export CXX
    have "$CXX" || packages+=(g++)
    have cmake || packages+=(cmake)
    have ninja || packages+=(ninja-build)
    install_packages ${packages[@]+"${packages[@]}"}
    have "$CXX" || die "no compiler $CXX"
    local preset
    for preset in "$@"; do
        case $preset in
        *-32) prepare_32 ;;
        x86-64) prepare_tools ;;
        armhf) prepare_processor arm arm-linux-gnueabihf ;;
        mips) prepare_processor mips mips-linux-gnu ;;
        esac
    done
    [[ " $* " != *" fuzz-32 "* ]] || prepare_fuzz
}

# prepare_to_test: what only the tests need.
prepare_to_test() {
    local -a packages=()
    [ -f /usr/src/googletest/CMakeLists.txt ] || packages+=(googletest)
    have clang++ || packages+=(clang)
    have pkg-config || packages+=(pkg-config)
    have telnet || packages+=(telnet)
    have abidw || packages+=(abigail-tools)
    have gdb || packages+=(gdb)
    have python3 || packages+=(python3)
    have doxygen || packages+=(doxygen)
    have pandoc || packages+=(pandoc)
    have help2man || packages+=(help2man)
    have go || packages+=(golang-go) # for pprof, which reads what tqcon writes
    install_packages ${packages[@]+"${packages[@]}"}
}

# What the benchmarks compare with: a file that is there when it is installed, and its package.
peers=(
    "/usr/include/glib-2.0/glib.h libglib2.0-dev"
    "/usr/include/Poco/Foundation.h libpoco-dev"
    "/usr/include/ace/ACE.h libace-dev"
    "/usr/include/uv.h libuv1-dev"
    "/usr/include/event2/event.h libevent-dev"
    "/usr/include/boost/asio.hpp libboost-dev"
    "/usr/include/spdlog/spdlog.h libspdlog-dev"
    "/usr/include/zlib.h zlib1g-dev"
    "/usr/include/benchmark/benchmark.h libbenchmark-dev"
    "/usr/bin/compress ncompress"
)

# prepare_to_bench: the peers; one that the machine's distribution does not have is left out.
prepare_to_bench() {
    local -a packages=()
    local file package
    have pkg-config || packages+=(pkg-config)
    ldconfig -p | grep -q libmimalloc.so || packages+=(libmimalloc2.0)
    while read -r file package; do
        [ -e "$file" ] || packages+=("$package")
    done < <(printf '%s\n' "${peers[@]}")
    for package in ${packages[@]+"${packages[@]}"}; do
        (install_packages "$package") || say "goes on without $package"
    done
}

# prepare_to_lint: what looks through sources and scripts.
prepare_to_lint() {
    local -a packages=()
    local tool
    for tool in clang-tidy cppcheck shellcheck; do
        have "$tool" || packages+=("$tool")
    done
    install_packages ${packages[@]+"${packages[@]}"}
}

# prepare_to_count: what counts the lines that run, and makes mutants.
prepare_to_count() {
    local -a packages=()
    have gcovr || packages+=(gcovr)
    have python3 || packages+=(python3)
    install_packages ${packages[@]+"${packages[@]}"}
}

# without_random_addresses COMMAND...: the thread sanitizer has no place for its shadow where the kernel spreads
# mappings over more bits than it knows.
without_random_addresses() {
    local bits
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)
    if [ "$bits" -gt 28 ] && setarch "$(uname -m)" -R true 2>/dev/null; then
        setarch "$(uname -m)" -R "$@"
    else
        "$@"
    fi
}

# build_one PRESET TARGET: one program or library of a preset.
build_one() {
    prepare_to_build "$1"
    prepare_to_test
    mkdir -p build
    { cmake --preset "$1" -DTQOS_GTEST_SOURCES=/usr/src/googletest >"build/$1.log" 2>&1 &&
        without_random_addresses cmake --build --preset "$1" -j "$(nproc)" --target "$2" >>"build/$1.log" 2>&1; } ||
        die "$2 not built, see build/$1.log"
}

# prepare_to_show: what only the demo needs.
prepare_to_show() {
    local -a packages=()
    have telnet || packages+=(telnet)
    have script || packages+=(bsdutils)
    install_packages ${packages[@]+"${packages[@]}"}
}

# count ATTRIBUTE FILE: a number of ctest's report.
count() {
    sed -n "s/.*[[:space:]]$1=\"\([0-9]*\)\".*/\1/p" "$2" | head -n 1
}

# The presets that can be built here, one a line.
known_presets() {
    sed -n '/"buildPresets"/,/\]/s/.*"name": "\([^"]*\)".*/\1/p' CMakePresets.json
}

# require_preset NAME: ends the script when there is none of that name.
require_preset() {
    known_presets | grep -qxF -e "$1" || die "no preset $1; there are: $(known_presets | tr '\n' ' ')"
}
