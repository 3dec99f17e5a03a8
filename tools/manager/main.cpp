#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "manager/Manager.h"
#include "manager/console.h"
#include "manager/interruption.h"
#include "manager/prompt.h"
#include "manager/script.h"

namespace {

using namespace manager;

constexpr char kDescription[] =
    "Simulated Manager: listens for service processes and talks to them by commands.\n"
    "Commands come from a script, from standard input or, at a terminal, from a prompt; the\n"
    "command help lists them. Every packet is printed: the time, the client, <- from or -> to\n"
    "it, and the text.";

constexpr char kFooter[] =
    "A script stops at the first command that fails or expectation that is not met.\n"
    "\n"
    "Exit status:\n"
    "  0      the commands ended, or a signal came while none was carried out\n"
    "  1      a command of the script failed or an expectation was not met\n"
    "  2      the command line, or a command of the script, is wrong\n"
    "  3      the Manager cannot run, as when it cannot listen at its path\n"
    "  128+N  signal N (SIGINT, SIGTERM, SIGHUP) interrupted a command of the script";

struct Options {
    std::string path = kDefaultPath;
    std::string script;
    bool quiet = false;
};

int fail(int status, const std::string& message) {
    std::cerr << "vexon-manager: " << message << '\n';
    return status;
}

int run_commands(const Options& options, CommandContext& context) {
    if (options.script.empty() && isatty(STDIN_FILENO) != 0) {
        Prompt prompt(context.console, context.interruption);
        run_prompt(prompt, context);
        return kSucceeded;
    }
    const bool is_file = !options.script.empty();
    FileDescriptor input(is_file ? open(options.script.c_str(), O_RDONLY | O_CLOEXEC)
                                 : dup(STDIN_FILENO));
    if (!input.valid()) {
        return fail(kBadUsage, "cannot read " + options.script + ": " + std::strerror(errno));
    }
    FileLines lines(std::move(input), context.interruption);
    return run_script(lines, is_file ? options.script : "<stdin>", context);
}

int run(const Options& options) {
    Console console(!options.quiet);
    SimulatedManager simulated(options.path);
    Interruption interruption([&] { simulated.stop(); });
    simulated.set_observer(
        [&](const Packet& packet) { console.packet(packet); },
        [&](int client, bool connected) { console.connection(client, connected); });
    simulated.start();
    CommandContext context{simulated, console, interruption};
    return run_commands(options, context);
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App app(kDescription, "vexon-manager");
    app.footer(kFooter);
    auto* path = app.add_option("--path", options.path, "Listen at this path")
                     ->type_name("PATH")
                     ->capture_default_str();
    app.add_flag_callback(
           "--dedicated", [&] { options.path = kDedicatedPath; },
           std::string("Listen at the dedicated path, ") + kDedicatedPath)
        ->excludes(path);
    app.add_option("--script", options.script, "Take the commands from this file")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    app.add_flag("--quiet", options.quiet, "Do not print packets");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSucceeded : kBadUsage;
    }
    return run(options);
} catch (const std::exception& error) {
    return fail(kCannotRun, error.what());
}
