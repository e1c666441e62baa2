// orvo: answers a question over a set of documents, with references.
#include <exception>
#include <iostream>
#include <string_view>
#include <vector>

#include "ask.hpp"
#include "options.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/text.hpp"

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  try {
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
      std::cout << orvo_cli::usage();
      return args.empty() ? 2 : 0;
    }
    if (args[0] == "--version") {
      std::cout << "orvo " << ORVO_VERSION << '\n';
      return 0;
    }
    if (args[0] != "ask")
      throw orvo_cli::UsageError("unknown command '" + std::string(args[0]) + "'");
    const std::span<const std::string_view> rest(args.data() + 1, args.size() - 1);
    for (const auto arg : rest) {
      if (arg == "-h" || arg == "--help") {
        std::cout << orvo_cli::usage();
        return 0;
      }
    }
    orvo_cli::AskOptions options = orvo_cli::parse_ask_options(rest);
    const bool answered =
        orvo_core::run_sync(orvo_cli::ask(std::move(options), &std::cout, &std::cerr));
    return answered ? 0 : 3;  // 3: the documents do not hold the answer.
  } catch (const orvo_cli::UsageError& e) {
    std::cout << std::flush;
    std::cerr << "orvo: " << orvo_core::text::escape_controls(e.what(), true)
              << "\n(see orvo --help)\n";
    return 2;
  } catch (const std::exception& e) {
    std::cout << std::flush;
    std::cerr << "\norvo: error: " << orvo_core::text::escape_controls(e.what(), true) << '\n';
    return 1;
  }
}
