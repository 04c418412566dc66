#pragma once
// Debugging aids shared by the whole library.
//
// vorn2_debug_break() stops the process in a debugger only when one is attached; otherwise it
// does nothing, so it is safe in release builds and under test.
//
// The debug output is one process-wide pending buffer of narrow text. vorn2_debug_printf appends
// printf-formatted text to it; as soon as the buffer holds a newline, the whole buffer goes to
// stderr with fputs and is emptied. Text without a newline waits for the next call. The buffer is unguarded:
// callers from several threads may interleave their text.

/// Stops in the debugger if one is attached (a non-zero TracerPid in /proc/self/status).
void vorn2_debug_break();

/// True when a debugger is attached to this process.
bool vorn2_debugger_attached();

/// Appends printf-formatted text to the debug output and flushes complete lines to stderr.
void vorn2_debug_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
