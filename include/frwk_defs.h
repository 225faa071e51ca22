/**
 * @file frwk_defs.h
 * Export, attribute and C/C++ macros shared by the public headers.
 */
#ifndef FRWK_DEFS_H
#define FRWK_DEFS_H

#ifdef __cplusplus
#define FRWK_BEGIN_DECLS extern "C" { /**< Begins declarations with C linkage. */
#define FRWK_END_DECLS }              /**< Ends them. */
#else
#define FRWK_BEGIN_DECLS
#define FRWK_END_DECLS
#endif

#if defined(__GNUC__)
/** Marks what the shared library exports; everything else in it is hidden. */
#define FRWK_API __attribute__((visibility("default")))
/** Lets the compiler check a printf format (argument `fmt`) against the arguments from `first` on. */
#define FRWK_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define FRWK_API
#define FRWK_PRINTF_FORMAT(fmt, first)
#endif

#if defined(__x86_64__) && defined(__has_attribute)
#if __has_attribute(noplt)
/** For what stands behind every trace line: called straight through its address, which saves a jump. */
#define FRWK_NO_PLT __attribute__((noplt))
#endif
#endif
#ifndef FRWK_NO_PLT
#define FRWK_NO_PLT
#endif

#endif
