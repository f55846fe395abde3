// mirvok-profile: makes the binary data files of mirvok from JSON, and prints them as JSON.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "file_layout.h"
#include "files.h"
#include "json_form.h"

namespace {

using namespace mirvok;

enum exit_status {
    EXIT_DONE = 0,
    EXIT_FAULT = 1,
    EXIT_USAGE = 2,
};

struct arguments {
    std::string kind;
    std::string input;
    std::string output;
};

int complain(const std::string& file, const std::string& message) {
    std::fprintf(stderr, "mirvok-profile: %s: %s\n", file.c_str(), message.c_str());
    return EXIT_FAULT;
}

int print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
        return complain("standard output", "cannot be written");
    }
    return EXIT_DONE;
}

int run_build(const arguments& given) {
    record_set set = {find_file_kind(given.kind), {}};
    std::vector<uint8_t> json;
    std::string error;
    if (read_file(given.input, json, error) != 0) {
        return complain(given.input, error);
    }
    std::vector<std::string> errors;
    if (records_from_json(json, set, errors) != 0) {
        for (const std::string& line : errors) {
            complain(given.input, line);
        }
        return EXIT_FAULT;
    }
    if (write_file(given.output, frame_records(set), error) != 0) {
        return complain(given.output, error);
    }
    return EXIT_DONE;
}

int run_dump(const arguments& given) {
    record_set set = {find_file_kind(given.kind), {}};
    std::vector<uint8_t> file;
    std::string error;
    if (read_file(given.input, file, error) != 0 || take_records(file, set, error) != 0) {
        return complain(given.input, error);
    }
    return print(records_to_json(set));
}

std::string footer() {
    std::string text =
        "JSON: an array of records, each an object. A field left out is 0 or empty. The characters U+0001 "
        "to\n"
        "U+00FF of a text stand for the bytes 01h to FFh, so \"\\u00e9\" is the byte E9h.\n";
    for (const file_kind& kind : file_kinds()) {
        text += "\n" + describe_record(kind);
    }
    return text + "\nExit status: 0 done, 1 a fault in a file (nothing was written then), 2 wrong usage.";
}

int run(int argc, char** argv) {
    CLI::App app("Makes the data files of mirvok from JSON, and prints them as JSON.", "mirvok-profile");
    app.require_subcommand(1);
    app.footer(footer());  // before the commands, which take it over
    arguments given;
    std::vector<std::string> names;
    for (const file_kind& kind : file_kinds()) {
        names.emplace_back(kind.name);
    }
    const auto add_command = [&](const char* name, const char* purpose, const char* input) {
        CLI::App* command = app.add_subcommand(name, purpose);
        command->add_option("kind", given.kind, "kind of data file")->required()->check(CLI::IsMember(names));
        command->add_option(input, given.input, "file to read")->required();
        return command;
    };
    CLI::App* build = add_command("build", "make OUT.bin from the records in IN.json", "IN.json");
    build->add_option("OUT.bin", given.output, "file to make or replace")->required();
    const CLI::App* dump = add_command("dump", "print the records of FILE.bin as JSON", "FILE.bin");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return dump->parsed() ? run_dump(given) : run_build(given);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& exception) {
        return complain("failed", exception.what());
    }
}
