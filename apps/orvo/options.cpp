#include "options.hpp"

#include <charconv>
#include <cmath>
#include <optional>
#include <vector>

namespace orvo_cli {
namespace {

template <class T>
T number(std::string_view option, std::string_view text) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw UsageError(std::string(option) + " expects a number, got '" + std::string(text) + "'");
  }
  return value;
}

// A duration in seconds: finite, positive and short enough that no count overflows.
std::chrono::milliseconds seconds(std::string_view option, std::string_view text) {
  constexpr double kMaxSeconds = 1e6;
  const double value = number<double>(option, text);
  if (!std::isfinite(value) || value <= 0 || value > kMaxSeconds) {
    throw UsageError(std::string(option) + " expects seconds in (0, 1e6], got '" +
                     std::string(text) + "'");
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(value * 1000)));
}

}  // namespace

std::string usage() {
  return R"(usage: orvo ask --docs PATH [options] [--] QUESTION
       orvo index --docs PATH [options]

ask answers QUESTION from the documents at PATH and lists the references behind the answer;
index only brings the index of PATH up to date. The index (chunks, full-text index, embeddings)
is kept in one SQLite file and updated on every run: only new or changed files are read again.
Without a server everything runs offline: BM25 retrieval and an extractive answer.

  --docs PATH              a folder of .md and .txt files (searched recursively), one such
                           file, or a .jsonl file of {"content": ..., "metadata": {...}} lines
  --db FILE                the index file (default: under $XDG_CACHE_HOME/orvo, or
                           ~/.cache/orvo, named after PATH)
  --url URL                API root of an OpenAI-compatible server, e.g. http://127.0.0.1:8080/v1
                           (default: $ORVO_BASE_URL)
  --embedding-url URL      API root for embeddings only (default: --url)
  --chat-model NAME        chat model on the server, or offline (default: $ORVO_CHAT_MODEL,
                           else default)
  --embedding-model NAME   embedding model on the server, or offline for BM25 retrieval only
                           (default: $ORVO_EMBEDDING_MODEL, else default)
  --api-key-env NAME       environment variable that holds the API key (default: ORVO_API_KEY)
  --synthesizer KIND       stuff (default) or static-list
  --references KIND        similarity (default) or lm
  --threshold X            lowest similarity of a reference (default: 0.5, offline 0.45)
  --batch-size N           chunks per request of the lm reference judge (default: 5)
  --top-k N                chunks retrieved for the question (default: 4)
  --chunk-size N           longest chunk in characters (default: 800)
  --timeout SECONDS        longest wait for the next bytes from the server (default: 120)
  --connect-timeout SECONDS  longest wait to connect to the server (default: 10)
  --total-timeout SECONDS  longest time for one request, retries included (default: 600)
  --retries N              tries again this often when the server is busy or unreachable
                           (default: 2; 0 turns retries off)
  --ca-file PATH           PEM file of the certificate authorities to trust for https
  --max-file-size BYTES    larger files in --docs are skipped (default: 16777216)
  --strict                 a file in --docs that cannot be read is an error, not skipped
  --json                   write every event as a line of JSON to standard output, ending
                           with one result object (or an error object)
  --verbose                show progress messages and each retrieved chunk with its scores
  --no-color               never colour the output (also when NO_COLOR is set)
  -h, --help               show this text

Exit status: 0 answered, 1 error, 2 bad command line, 3 no answer found in the documents.
)";
}

bool remote_chat(const AskOptions& options) {
  return !options.url.empty() && options.chat_model != "offline";
}

std::string embedding_endpoint(const AskOptions& options) {
  if (options.embedding_model == "offline") return {};
  return options.embedding_url.empty() ? options.url : options.embedding_url;
}

AskOptions parse_ask_options(std::span<const std::string_view> args, AskOptions::Command command,
                             const Environment& env) {
  AskOptions options;
  options.command = command;
  const auto from_env = [&env](const char* name) -> std::string {
    const char* value = env ? env(name) : nullptr;
    return value != nullptr ? value : "";
  };
  options.url = from_env("ORVO_BASE_URL");
  if (const std::string model = from_env("ORVO_CHAT_MODEL"); !model.empty()) {
    options.chat_model = model;
  }
  if (const std::string model = from_env("ORVO_EMBEDDING_MODEL"); !model.empty()) {
    options.embedding_model = model;
  }
  if (!from_env("NO_COLOR").empty()) options.color = false;

  bool have_docs = false;
  bool positional_only = false;
  std::vector<std::string_view> positional;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string_view arg = args[i];
    if (positional_only || arg == "-" || !arg.starts_with("-")) {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      positional_only = true;
      continue;
    }
    // --name=value is --name value.
    std::optional<std::string_view> inline_value;
    if (const auto eq = arg.find('='); arg.starts_with("--") && eq != std::string_view::npos) {
      inline_value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
    }
    bool used = false;
    const auto value = [&]() -> std::string_view {
      used = true;
      if (inline_value) return *inline_value;
      if (i + 1 >= args.size()) throw UsageError(std::string(arg) + " needs a value");
      return args[++i];
    };
    if (arg == "--docs") {
      options.docs = std::string(value());
      have_docs = true;
    } else if (arg == "--db") {
      options.db = std::string(value());
    } else if (arg == "--url") {
      options.url = value();
    } else if (arg == "--embedding-url") {
      options.embedding_url = value();
    } else if (arg == "--chat-model") {
      options.chat_model = value();
    } else if (arg == "--embedding-model") {
      options.embedding_model = value();
    } else if (arg == "--api-key-env") {
      options.api_key_env = value();
    } else if (arg == "--synthesizer") {
      const std::string_view kind = value();
      if (kind == "stuff") {
        options.synthesizer = AskOptions::Synthesizer::stuff;
      } else if (kind == "static-list") {
        options.synthesizer = AskOptions::Synthesizer::static_list;
      } else {
        throw UsageError("--synthesizer is stuff or static-list, not '" + std::string(kind) + "'");
      }
    } else if (arg == "--references") {
      const std::string_view kind = value();
      if (kind == "similarity") {
        options.references = AskOptions::References::similarity;
      } else if (kind == "lm") {
        options.references = AskOptions::References::lm;
      } else {
        throw UsageError("--references is similarity or lm, not '" + std::string(kind) + "'");
      }
    } else if (arg == "--threshold") {
      options.threshold = number<double>(arg, value());
    } else if (arg == "--batch-size") {
      options.batch_size = number<std::int64_t>(arg, value());
      if (options.batch_size < 1) throw UsageError("--batch-size must be at least 1");
    } else if (arg == "--top-k") {
      options.top_k = number<std::size_t>(arg, value());
      if (options.top_k < 1) throw UsageError("--top-k must be at least 1");
    } else if (arg == "--chunk-size") {
      options.chunk_size = number<std::size_t>(arg, value());
      if (options.chunk_size < 40) throw UsageError("--chunk-size must be at least 40");
    } else if (arg == "--timeout") {
      options.timeout = seconds(arg, value());
    } else if (arg == "--connect-timeout") {
      options.connect_timeout = seconds(arg, value());
    } else if (arg == "--total-timeout") {
      options.total_timeout = seconds(arg, value());
    } else if (arg == "--retries") {
      options.retries = number<std::size_t>(arg, value());
      if (options.retries > 100) throw UsageError("--retries must be at most 100");
    } else if (arg == "--ca-file") {
      options.ca_file = value();
    } else if (arg == "--max-file-size") {
      options.max_file_bytes = number<std::uint64_t>(arg, value());
      if (options.max_file_bytes < 1) throw UsageError("--max-file-size must be at least 1");
    } else if (arg == "--strict") {
      options.strict = true;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--verbose") {
      options.verbose = true;
    } else if (arg == "--no-color") {
      options.color = false;
    } else {
      throw UsageError("unknown option " + std::string(arg));
    }
    if (inline_value && !used) throw UsageError(std::string(arg) + " takes no value");
  }
  if (!have_docs) throw UsageError("--docs PATH is required");
  if (command == AskOptions::Command::index) {
    if (!positional.empty()) throw UsageError("orvo index takes no question");
    return options;
  }
  if (positional.size() > 1) throw UsageError("give the question as one argument (quote it)");
  if (positional.empty() ||
      positional.front().find_first_not_of(" \t\r\n") == std::string_view::npos) {
    throw UsageError("a question is required");
  }
  options.question = positional.front();
  return options;
}

}  // namespace orvo_cli
