// orvo: answers a question over a set of documents, with references.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string_view>
#include <vector>

#include "ask.hpp"
#include "options.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/text.hpp"

namespace {

// With --json a failure is one more JSON line on standard output, so that a program reading the
// events learns why the run ended.
void report(bool json, std::string_view message, bool usage) {
  std::cout << std::flush;
  if (json) {
    std::string line = R"({"type": "ERROR", "level": "ERROR", "value": )";
    orvo_core::text::append_json_string(line, message);
    std::cout << line << "}\n" << std::flush;
    return;
  }
  std::cerr << (usage ? "orvo: " : "\norvo: error: ")
            << orvo_core::text::escape_controls(message, true)
            << (usage ? "\n(see orvo --help)\n" : "\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  bool json = false;
  for (const auto arg : args) {
    if (arg == "--") break;
    json = json || arg == "--json";
  }
  try {
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
      std::cout << orvo_cli::usage();
      return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version") {
      std::cout << "orvo " << ORVO_VERSION << '\n';
      return 0;
    }
    using Command = orvo_cli::AskOptions::Command;
    Command command = Command::ask;
    if (args[0] == "index") {
      command = Command::index;
    } else if (args[0] != "ask") {
      throw orvo_cli::UsageError("unknown command '" + std::string(args[0]) + "'");
    }
    const std::span<const std::string_view> rest(args.data() + 1, args.size() - 1);
    for (const auto arg : rest) {
      if (arg == "--") break;
      if (arg == "-h" || arg == "--help") {
        std::cout << orvo_cli::usage();
        return 0;
      }
    }
    orvo_cli::AskOptions options = orvo_cli::parse_ask_options(
        rest, command, [](const char* name) { return std::getenv(name); });
    return orvo_core::run_sync(orvo_cli::run_command(std::move(options), &std::cout, &std::cerr));
  } catch (const orvo_cli::UsageError& e) {
    report(json, e.what(), true);
    return 2;
  } catch (const std::exception& e) {
    report(json, e.what(), false);
    return 1;
  }
}
