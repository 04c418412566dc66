#pragma once
// How the subcommands of `vorn` plug into main: each command file offers one Add...Command
// function that declares its subcommand and options on the application and returns the action
// that main runs when that subcommand was given. An action returns the process exit code:
// 0 success, 1 when the algorithm found nothing, 2 for bad usage or an unreadable file.
#include <CLI/CLI.hpp>
#include <functional>

struct VornCommand
{
    CLI::App* subcommand = nullptr;
    std::function<int()> run;
};
