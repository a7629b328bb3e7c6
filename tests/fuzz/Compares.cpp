// The fuzzer's record of compared numbers, left empty. It is made for inputs that are numbers in memory: what the code
// compares is put into the next inputs. In targets whose inputs are text it took up to half of the time and told the
// fuzzer little. What guides it there is left to it: the branches taken, and the texts compared by strcmp() and its
// like.
#include <stdint.h>

extern "C" {

void __wrap___sanitizer_cov_trace_cmp1(uint8_t, uint8_t) {}
void __wrap___sanitizer_cov_trace_cmp2(uint16_t, uint16_t) {}
void __wrap___sanitizer_cov_trace_cmp4(uint32_t, uint32_t) {}
void __wrap___sanitizer_cov_trace_cmp8(uint64_t, uint64_t) {}
void __wrap___sanitizer_cov_trace_const_cmp1(uint8_t, uint8_t) {}
void __wrap___sanitizer_cov_trace_const_cmp2(uint16_t, uint16_t) {}
void __wrap___sanitizer_cov_trace_const_cmp4(uint32_t, uint32_t) {}
void __wrap___sanitizer_cov_trace_const_cmp8(uint64_t, uint64_t) {}
void __wrap___sanitizer_cov_trace_switch(uint64_t, uint64_t*) {}

} // extern "C"
