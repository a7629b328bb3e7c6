/// @file tq_Types.h
/// What every public header shares and no module owns: the lock result type, the export and attribute macros, and the
/// defaults that hand a caller's own line and file to a method.
#ifndef TQ_TYPES_H
#define TQ_TYPES_H

/// Result of the lock and wait operations: 1 for success, 0 for failure or time-out.
typedef unsigned char BOOL;

/// Marks what the shared library exports; everything else stays hidden.
#define TQ_API __attribute__((visibility("default")))

/// Lets the compiler check the arguments of a printf-like function: the positions (from 1; a method counts `this`) of
/// the format and of the first argument, 0 when the arguments come as a va_list.
#define TQ_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

/// Default of a method's last argument but one: the line of the call itself.
#define TQ_CALLER_LINE static_cast<unsigned int>(__builtin_LINE())
/// Default of a method's last argument: the file of the call itself.
#define TQ_CALLER_FILE __builtin_FILE()

#endif // TQ_TYPES_H
