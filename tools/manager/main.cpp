// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>

#include "manager/base/json.h"
#include "manager/console/console.h"
#include "manager/console/interruption.h"
#include "manager/prompt/prompt.h"
#include "manager/recording/pictures.h"
#include "manager/recording/replay.h"
#include "manager/services/service_process.h"
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
    "SERVICE is started when the Manager listens, in a private /dev if need be; what it prints is\n"
    "shown, and it is ended with the Manager, which ends with it unless there is a script.\n"
    "\n"
    "Examples:\n"
    "  vexon-manager -- ./thermostat-service      a service and a prompt in one shell\n"
    "  vexon-manager                              a prompt; Tab completes words\n"
    "  vexon-manager --script test.vexon          a test of a service, as in a CI\n"
    "  echo 'expect REDY 10000' | vexon-manager --json | jq -c '.message // empty'\n"
    "                                             what a service says when it introduces itself\n"
    "  vexon-manager --script test.vexon --record test.jsonl\n"
    "                                             the same, and keep the conversation\n"
    "  vexon-manager --replay test.jsonl          does the service still answer the same?\n"
    "  vexon-manager --from test.jsonl --diagram test.html\n"
    "                                             a page to look at, as --diagram with --script\n"
    "\n"
    "Exit status:\n"
    "  0      the commands ended, or a signal came while none was carried out; if SERVICE ended\n"
    "         before them, its own exit status\n"
    "  1      a command of the script failed, an expectation was not met, the service did not\n"
    "         answer as recorded, it made a fault with --strict, the definition has one, or a\n"
    "         recording or picture could not be read or written\n"
    "  2      the command line, or a command of the script, is wrong\n"
    "  3      the Manager cannot run, as when it cannot listen at its path\n"
    "  128+N  signal N (SIGINT, SIGTERM, SIGHUP) interrupted a command of the script\n"
    "  141    nobody reads the output any more";

struct Options {
    std::string path = kDefaultPath;
    std::string script;
    std::string record;
    std::string replay;
    ReplayOptions replay_options;
    std::string trace;
    std::string diagram;
    std::string from;
    std::string check;
    std::optional<std::string> watch;
    std::vector<std::string> service;
    bool quiet = false;
    bool strict = false;
    Format format = Format::Text;
};

int fail(int status, const std::string& message) {
    std::cerr << "vexon-manager: " << message << '\n';
    return status;
}

constexpr auto complain = [](const std::string& message) { fail(0, message); };

int run_commands(const Options& options, CommandContext& context) {
    if (options.watch) return run_command("watch " + *options.watch, context);
    FileDescriptor file(options.script.empty()
                            ? dup(STDIN_FILENO)
                            : open(options.script.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return fail(kBadUsage, "cannot read " + options.script + ": " + std::strerror(errno));
    }
    const LineSource lines = file_lines(file.get(), context.interruption);
    if (!options.script.empty()) return run_script(lines, options.script, context);
    if (isatty(STDIN_FILENO) == 0) return run_script(lines, "<stdin>", context);
    const bool can_edit = options.format == Format::Text && shows_on_terminal();
    return run_prompt(can_edit ? edited_lines(context) : lines, context);
}

int draw_recording(const Options& options) try {
    if (options.trace.empty() && options.diagram.empty()) {
        return fail(kBadUsage, "--from needs --trace or --diagram");
    }
    Pictures(options.trace, options.diagram).draw(options.from, complain);
    return kSucceeded;
} catch (const ManagerError& error) {
    return fail(kCommandFailed, error.what());
}

/// Changes the status if the files cannot be ended as they should be.
void end_files(int& status, CommandContext& context, const std::function<void()>& end) try {
    end();
} catch (const ManagerError& error) {
    context.console.error(error.what());
    if (status == kSucceeded) status = kCommandFailed;
}

int end(int status, CommandContext& context, std::optional<Pictures>& pictures) {
    // The ends of the connections belong to the recording and the pictures.
    context.manager.stop();
    if (context.traffic.services.has_new_figures()) show_calls(context);
    end_files(status, context, [&] {
        context.traffic.recorder.stop();
        context.traffic.pictured.stop();
        if (pictures) pictures->draw(pictures->recording(), complain);
    });
    return context.console.is_broken() ? kInterrupted + SIGPIPE : status;
}

int run(const Options& options) {
    Console console(!options.quiet, options.format);
    console.set_broken_output([] { Interruption::interrupt(SIGPIPE); });
    Traffic traffic;
    SimulatedManager simulated(options.path);
    Interruption interruption([&] { simulated.set_waiting(false); });
    traffic.follow(simulated, console);
    CommandContext context{simulated, console, interruption, traffic};
    context.strict = options.strict;
    std::optional<Replay> replay;
    std::optional<Pictures> pictures;
    try {
        // Before the Manager listens: no service may be answered otherwise than recorded.
        if (!options.replay.empty())
            replay.emplace(options.replay, options.replay_options, context);
        if (!options.record.empty()) traffic.recorder.start(options.record);
        if (!options.trace.empty() || !options.diagram.empty()) {
            pictures.emplace(options.trace, options.diagram);
            traffic.pictured.start(pictures->recording());
        }
    } catch (const ManagerError& error) {
        return fail(kCommandFailed, error.what());
    }
    simulated.start();
    std::optional<ServiceProcess> service;
    if (!options.service.empty()) {
        service.emplace(options.service, console, [&] {
            if (options.script.empty()) Interruption::interrupt(SIGTERM);
        });
    }
    int status = replay ? run_step("--replay " + options.replay, context, [&] { replay->run(); })
                        : run_commands(options, context);
    if (service) {
        // A replay would wait for the farewell of the service, which it does not cause itself.
        end_files(status, context, [&] { traffic.recorder.stop(); });
        const int service_status = service->end();
        if (status == kSucceeded) status = service_status;
    }
    if (status == kSucceeded && options.strict && traffic.faults > 0) status = kCommandFailed;
    return end(status, context, pictures);
}

/// Looks at a definition alone: what stands in the file from the first brace on.
int check_definition(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file) return fail(kBadUsage, "cannot read " + name);
    const std::size_t begin = std::min(text.find('{'), text.size());
    JsonError error;
    const auto api_def = parse_json(text.substr(begin), &error);
    Faults faults;
    if (api_def) manager::check_definition(*api_def, faults);
    if (!api_def) faults.push_back({"no JSON: " + error.what, error.offset});
    for (const Fault& fault : faults) {
        const std::string before = text.substr(0, begin + fault.offset);
        const auto line = std::count(before.begin(), before.end(), '\n') + 1;
        const std::size_t column = before.size() - (before.rfind('\n') + 1) + 1;
        std::cout << name << ':' << line << ':' << column << ": " << fault.what << '\n';
    }
    if (!faults.empty()) return kCommandFailed;
    const Json::Value& service = member(*api_def, "Vexon");
    for (const Json::Value& function : array_of(service, "functions")) {
        std::cout << name_of(service) << '.' << signature(function) << '\n';
    }
    return kSucceeded;
}

/// Has the whole program run inside a private /dev, where the Manager may have its real path.
/// Returns only if that is not possible.
void enter_private_dev(int argc, char** argv) {
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string folder = std::filesystem::path(self).parent_path();
    std::string separator = "--";
    std::vector<char*> command{nullptr, separator.data(), self.data()};
    command.insert(command.end(), argv + 1, argv + argc + 1);
    for (std::string tool :
         {folder + "/vexon-private-dev", folder + "/../private_dev/vexon-private-dev"}) {
        command[0] = tool.data();
        execv(command[0], command.data());
    }
}

/// Shows an option without what the parser knows of it.
class Help : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string) const override {
        return "Usage: vexon-manager [OPTIONS] [-- SERVICE [ARG...]]\n";
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_type_size() == 0 ? "" : ' ' + option->get_type_name();
    }
};

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    // What stands behind -- is the service and its arguments.
    char** const end =
        std::find_if(argv, argv + argc, [](const char* a) { return std::string(a) == "--"; });
    if (end != argv + argc) options.service.assign(end + 1, argv + argc);
    CLI::App app(kDescription, "vexon-manager");
    app.footer(kFooter);
    app.formatter(std::make_shared<Help>());
    app.set_version_flag("--version", "vexon-manager " VEXON_VERSION);
    const auto exists = [](const std::string& file) { return CLI::ExistingFile(file); };
    const auto option = [&](const char* name, auto& value, const char* type, const char* help) {
        return app.add_option(name, value, help)->type_name(type);
    };
    auto* path = option("--path", options.path, "PATH", "Listen at this path");
    path->capture_default_str();
    app.add_flag_callback(
           "--dedicated", [&] { options.path = kDedicatedPath; },
           std::string("Listen at the dedicated path, ") + kDedicatedPath)
        ->excludes(path);
    auto* script = option("--script", options.script, "FILE", "Take the commands from this file");
    script->check(exists);
    auto* record =
        option("--record", options.record, "FILE", "Write the conversation to this file");
    option("--trace", options.trace, "FILE",
           "Write the conversation to this file at the end, for trace viewers");
    option("--diagram", options.diagram, "FILE.html",
           "Write it to this file at the end, as a page with a sequence diagram");
    auto* replay = option(
        "--replay", options.replay, "FILE",
        "Play the Manager's side of the conversation that was recorded in this file, and end");
    replay->check(exists)->excludes(script);
    app.add_option_function<std::vector<std::string>>(
           "--ignore",
           [&](const auto& names) {
               options.replay_options.ignored.insert(names.begin(), names.end());
           },
           "Members that --replay does not compare, as help replay explains")
        ->type_name("NAME")
        ->needs(replay);
    option("--from", options.from, "RECORDING",
           "Take the conversation for --trace and --diagram from this recording, and end")
        ->check(exists)
        ->excludes(script, replay, record);
    option("--check", options.check, "FILE",
           "Check the definition of a service in this file, print what it declares, and end");
    option("--watch", options.watch, "[FILTER]",
           "Show only packets that fit, as help watch explains, until a signal comes")
        ->expected(0, 1)
        ->excludes(script, replay);
    app.add_flag("--strict", options.strict,
                 "Fail if a service sends what is not as it should be, instead of warning");
    app.add_flag("--quiet", options.quiet, "Do not print packets");
    app.add_flag_callback(
        "--json", [&] { options.format = Format::Json; },
        "Print a JSON object on a line of its own for each packet, connection and result");
    try {
        app.parse(static_cast<int>(end - argv), argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSucceeded : kBadUsage;
    }
    if (!options.check.empty()) return check_definition(options.check);
    if (!options.from.empty()) return draw_recording(options);
    const bool is_real_path = options.path == kDefaultPath || options.path == kDedicatedPath;
    const std::string folder = std::filesystem::path(options.path).parent_path();
    if (!options.service.empty() && is_real_path && access(folder.c_str(), W_OK) != 0) {
        enter_private_dev(argc, argv);
        return fail(kCannotRun, "cannot run vexon-private-dev");
    }
    return run(options);
} catch (const std::exception& error) {
    return fail(kCannotRun, error.what());
}
