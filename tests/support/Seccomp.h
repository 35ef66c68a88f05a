// Makes one system call fail with `err` for the rest of the calling process's
// life; for death tests that need the kernel to refuse a call. Returns false
// if the filter could not be installed.
#pragma once

bool deny_syscall(long syscallNumber, int err);
