# A recipe for Yocto's build. It has been written against its documentation and not been built.
SUMMARY = "Operating-system services for embedded Linux applications"
DESCRIPTION = "Message queues with worker threads, timers, sockets turned into messages, inspectable threads and locks, \
tracked memory, trace, configuration, and a diagnostic console"
SECTION = "libs"
LICENSE = "CLOSED"

# The sources' own directory, for instance with devtool or an external source tree in local.conf:
#   TQOS_SOURCES = "/path/to/tqos"
inherit cmake externalsrc pkgconfig
EXTERNALSRC = "${TQOS_SOURCES}"

EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DTQOS_EXAMPLES=OFF -DTQOS_TOOLS=OFF"

FILES:${PN} += "${libdir}/libtqos.so.*"
