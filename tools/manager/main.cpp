#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>

#include "manager/console/console.h"
#include "manager/console/interruption.h"
#include "manager/prompt/prompt.h"
#include "manager/prompt/script.h"
#include "manager/recording/replay.h"
#include "manager/simulation/Manager.h"

namespace {

using namespace manager;

constexpr char kDescription[] =
    "Simulated Manager: listens for service processes and talks to them by commands.\n"
    "Commands come from a script, from standard input or, at a terminal, from a prompt; the\n"
    "command help lists them. Every packet is printed: the time, the client, <- from or -> to\n"
    "it, and the text.";

constexpr char kFooter[] =
    "A script stops at the first command that fails or expectation that is not met. Figures of\n"
    "the function calls are printed at the end.\n"
    "\n"
    "Examples:\n"
    "  vexon-manager                              a prompt; Tab completes words\n"
    "  vexon-manager --script test.vexon          a test of a service, as in a CI\n"
    "  echo 'expect REDY 10000' | vexon-manager --json | jq -c '.message // empty'\n"
    "                                             what a service says when it introduces itself\n"
    "  vexon-manager --script test.vexon --record test.jsonl, later\n"
    "  vexon-manager --replay test.jsonl          does the service still answer the same?\n"
    "\n"
    "Exit status:\n"
    "  0      the commands ended, or a signal came while none was carried out\n"
    "  1      a command of the script failed, an expectation was not met, the service did not\n"
    "         answer as recorded, or the recording could not be written\n"
    "  2      the command line, or a command of the script, is wrong\n"
    "  3      the Manager cannot run, as when it cannot listen at its path\n"
    "  128+N  signal N (SIGINT, SIGTERM, SIGHUP) interrupted a command of the script\n"
    "  141    nobody reads the output any more";

struct Options {
    std::string path = kDefaultPath;
    std::string script;
    std::string record;
    std::string replay;
    std::vector<std::string> ignored;
    bool quiet = false;
    Format format = Format::Text;
};

int fail(int status, const std::string& message) {
    std::cerr << "vexon-manager: " << message << '\n';
    return status;
}

int run_standard_input(CommandContext& context) {
    if (isatty(STDIN_FILENO) != 0 && context.console.format() == Format::Text &&
        shows_on_terminal()) {
        Prompt prompt(context);
        run_prompt(prompt, context);
        return kSucceeded;
    }
    FileLines lines(FileDescriptor(dup(STDIN_FILENO)), context.interruption);
    if (isatty(STDIN_FILENO) == 0) return run_script(lines, "<stdin>", context);
    run_prompt(lines, context);
    return kSucceeded;
}

int run_commands(const Options& options, CommandContext& context) {
    if (options.script.empty()) return run_standard_input(context);
    FileDescriptor file(open(options.script.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return fail(kBadUsage, "cannot read " + options.script + ": " + std::strerror(errno));
    }
    FileLines lines(std::move(file), context.interruption);
    return run_script(lines, options.script, context);
}

int end(int status, CommandContext& context) {
    // The ends of the connections belong to the recording.
    context.manager.stop();
    if (context.traffic.calls.has_news()) show_calls(context);
    if (context.console.is_broken()) return kInterrupted + SIGPIPE;
    try {
        context.traffic.recorder.stop();
    } catch (const ManagerError& error) {
        context.console.error(error.what());
        return status == kSucceeded ? kCommandFailed : status;
    }
    return status;
}

ReplayOptions replay_options(const Options& options) {
    ReplayOptions result;
    result.ignored.insert(options.ignored.begin(), options.ignored.end());
    return result;
}

/// Opens the files of the command line. Throws ManagerError.
void open_files(const Options& options, CommandContext& context, std::optional<Replay>* replay) {
    // Before the Manager listens: no service may be answered otherwise than recorded.
    if (!options.replay.empty()) {
        replay->emplace(options.replay, replay_options(options), context);
    }
    if (!options.record.empty()) context.traffic.recorder.start(options.record);
}

int run(const Options& options) {
    Console console(!options.quiet, options.format);
    console.set_broken_output([] { Interruption::interrupt(SIGPIPE); });
    Traffic traffic;
    SimulatedManager simulated(options.path);
    Interruption interruption([&] { simulated.stop(); });
    traffic.follow(simulated, console);
    CommandContext context{simulated, console, interruption, traffic};
    std::optional<Replay> replay;
    try {
        open_files(options, context, &replay);
    } catch (const ManagerError& error) {
        return fail(kCommandFailed, error.what());
    }
    simulated.start();
    const int status =
        replay ? run_step(
                     "--replay " + options.replay, [&](CommandContext&) { replay->run(); }, context)
               : run_commands(options, context);
    return end(status, context);
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App app(kDescription, "vexon-manager");
    app.footer(kFooter);
    app.set_version_flag("--version", "vexon-manager " VEXON_VERSION);
    auto* path = app.add_option("--path", options.path, "Listen at this path")
                     ->type_name("PATH")
                     ->capture_default_str();
    app.add_flag_callback(
           "--dedicated", [&] { options.path = kDedicatedPath; },
           std::string("Listen at the dedicated path, ") + kDedicatedPath)
        ->excludes(path);
    auto* script = app.add_option("--script", options.script, "Take the commands from this file")
                       ->type_name("FILE")
                       ->check(CLI::ExistingFile);
    app.add_option("--record", options.record, "Write the conversation to this file")
        ->type_name("FILE");
    auto* replay =
        app.add_option(
               "--replay", options.replay,
               "Play the Manager's side of the conversation that was recorded in this file, "
               "and end")
            ->type_name("FILE")
            ->check(CLI::ExistingFile)
            ->excludes(script);
    app.add_option("--ignore", options.ignored,
                   "Members that --replay does not compare, as help replay explains")
        ->type_name("NAME")
        ->needs(replay);
    app.add_flag("--quiet", options.quiet, "Do not print packets");
    app.add_flag_callback(
        "--json", [&] { options.format = Format::Json; },
        "Print a JSON object on a line of its own for each packet, connection and result");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSucceeded : kBadUsage;
    }
    return run(options);
} catch (const std::exception& error) {
    return fail(kCannotRun, error.what());
}
