#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace orvo_cli {

/// A command line that cannot be understood; the message says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The settings of `orvo ask` and `orvo index`.
struct AskOptions {
  enum class Command { ask, index };
  enum class Synthesizer { stuff, static_list };
  enum class References { similarity, lm };

  Command command = Command::ask;
  std::filesystem::path docs;
  std::filesystem::path db;  ///< The index file; empty: `CorpusIndex::default_path`.
  std::string question;
  std::string url;                     ///< API root of an OpenAI-compatible server; empty: offline.
  std::string embedding_url;           ///< API root for embeddings; empty: `url`.
  std::string chat_model = "default";  ///< "offline": the extractive answer.
  std::string embedding_model = "default";  ///< "offline": BM25 retrieval only.
  std::string api_key_env = "ORVO_API_KEY";
  Synthesizer synthesizer = Synthesizer::stuff;
  References references = References::similarity;
  std::optional<double> threshold;  ///< Unset: 0.5 with a server, 0.45 offline.
  std::int64_t batch_size = 5;
  std::size_t top_k = 4;
  std::size_t chunk_size = 800;
  std::chrono::milliseconds timeout{120'000};         ///< Idle: longest wait for the next bytes.
  std::chrono::milliseconds connect_timeout{10'000};  ///< Resolving, connecting, TLS handshake.
  std::chrono::milliseconds total_timeout{600'000};   ///< A whole request, retries included.
  std::size_t retries = 2;                            ///< Of a busy or unreachable server.
  std::string ca_file;                                ///< Trusted CAs instead of the system's.
  std::uint64_t max_file_bytes = std::uint64_t{16} << 20;  ///< Larger corpus files are skipped.
  bool strict = false;  ///< Unreadable or skipped corpus files are errors.
  bool json = false;
  bool verbose = false;
  bool color = true;
};

/// Looks up an environment variable; null when unset.
using Environment = std::function<const char*(const char*)>;

/// Parses the arguments that follow the command. ORVO_BASE_URL, ORVO_CHAT_MODEL and
/// ORVO_EMBEDDING_MODEL from `env` give defaults that options override; a non-empty NO_COLOR
/// turns colour off.
[[nodiscard]] AskOptions parse_ask_options(std::span<const std::string_view> args,
                                           AskOptions::Command command = AskOptions::Command::ask,
                                           const Environment& env = {});

/// Whether the answer comes from a chat model on a server.
[[nodiscard]] bool remote_chat(const AskOptions& options);
/// The API root that embeds texts, or empty when embeddings are made offline.
[[nodiscard]] std::string embedding_endpoint(const AskOptions& options);

/// The help text.
[[nodiscard]] std::string usage();

}  // namespace orvo_cli
