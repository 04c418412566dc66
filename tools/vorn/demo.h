#pragma once
// `vorn demo`: shows the library at work on a small built-in problem and prints the results.

/// Runs the demo, writing to stdout; returns the process exit code.
int RunDemo();
