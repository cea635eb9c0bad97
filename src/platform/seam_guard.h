// Included last by every daemon source outside platform/: a direct call that bypasses the
// system seam does not compile. (Include all system headers before this one.)
#pragma once

#pragma GCC poison ioctl fork execve popen system sleep usleep sysinfo semget semop semctl
