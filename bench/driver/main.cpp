// Calls services the whole way and compares them. Run it in a private /dev.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>

#include "driver/measurement.h"
#include "driver/report.h"

namespace {

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

std::vector<std::string> words_of(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

void compare(const bench::Effort& effort, const std::string& output) {
    const bench::Results results = bench::measure_all(effort);
    const std::string tables = bench::tables_of(results);
    std::fputs(tables.c_str(), stdout);
    write_file(output + ".txt", tables);
    write_file(output + ".csv", bench::csv_of(results));
    write_file(output + ".svg", bench::plot_of(results));
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Calls services the whole way and compares them. Run it in a private /dev."};
    app.require_subcommand(1);

    bench::Effort effort{20, 40};
    std::string output = "whole-way";
    CLI::App* const compare_command = app.add_subcommand("compare", "compare all contenders");
    compare_command->add_option("--rounds", effort.rounds, "how often each has its turn");
    compare_command->add_option("--burst-ms", effort.burst_ms, "how long a turn is");
    compare_command->add_option("--output", output, "path of the results, without suffix");

    std::string contender;
    std::string message;
    std::string under;
    std::size_t tasks = 0;
    CLI::App* const drive_command = app.add_subcommand("drive", "have one service handle tasks");
    drive_command->add_option("contender", contender)->required();
    drive_command->add_option("message", message)->required();
    drive_command->add_option("tasks", tasks)->required();
    drive_command->add_option("--under", under, "program that runs the service");

    CLI11_PARSE(app, argc, argv);
    if (*compare_command) compare(effort, output);
    if (*drive_command) bench::drive(contender, words_of(under), message, tasks);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench-driver: %s\n", error.what());
    return 1;
}
