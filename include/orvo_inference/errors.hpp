#pragma once

#include <stdexcept>
#include <string>

// Errors of the concrete collaborators. Each failure of a remote call has its own type so that a
// caller can tell a server that said no from one that could not be reached or went silent.
// Messages never contain credentials.
namespace orvo_inference {

/// Base of every error raised while talking to a model server or parsing its reply.
class InferenceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The server could not be reached: the name did not resolve, or the connection was refused or
/// failed (TLS handshake and certificate failures included).
class ConnectError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

/// Connecting, waiting for the next bytes of a reply, or the whole call took longer than its
/// limit, or the reply came slower than the lowest speed allowed.
class TimeoutError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

/// The server closed the connection before the reply was complete.
class ConnectionClosedError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

/// The server answered with an HTTP error status; `what()` carries the server's own message.
class HttpStatusError : public InferenceError {
 public:
  HttpStatusError(unsigned status, const std::string& message)
      : InferenceError(message), status(status) {}
  unsigned status;  ///< The HTTP status code, e.g. 404 or 503.
};

/// The reply broke the protocol or its size limit: bad HTTP, bad event stream, or a JSON body
/// without the fields the API promises.
class MalformedReplyError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

/// A streamed reply stopped before the server said it was complete (no `[DONE]` and no finish
/// reason): what came is only part of the answer.
class TruncatedReplyError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

/// The model's text is not what the output parser needs; `what()` quotes a short excerpt.
class OutputParserError : public InferenceError {
 public:
  using InferenceError::InferenceError;
};

}  // namespace orvo_inference
