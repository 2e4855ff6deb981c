// The thread sanitizer of GCC 12 does not intercept __longjmp_chk, which Debian's Lua jumps with: every Lua error would
// leak the sanitizer's shadow of the frames that were left. Exported from the executable, this one is found first.
#include <setjmp.h>

void __longjmp_chk(jmp_buf env, int value);
void __longjmp_chk(jmp_buf env, int value) {
  longjmp(env, value);
}
