/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * On ARM every table entry for unwinding refers to one of these routines by name, and the linker would take the whole
 * unwinder of libgcc into the library for that. The entries of C-like code name their routine by number as well, and
 * whoever unwinds (libgcc_s, loaded when a thread is cancelled) uses its own: these are never called.
 */
#if defined(__ARM_EABI__)

extern "C" {
void __aeabi_unwind_cpp_pr0();
void __aeabi_unwind_cpp_pr1();
void __aeabi_unwind_cpp_pr2();

void __aeabi_unwind_cpp_pr0()
{
}

void __aeabi_unwind_cpp_pr1()
{
}

void __aeabi_unwind_cpp_pr2()
{
}
}

#endif
