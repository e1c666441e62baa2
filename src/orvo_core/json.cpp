#include "orvo_core/json.hpp"

#include <cmath>
#include <vector>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "orvo_core/errors.hpp"
#include "orvo_core/text.hpp"

namespace orvo_core {
namespace {

constexpr std::size_t kMaxDepth = 1000;
constexpr std::size_t kExcerpt = 80;

Any from_json(const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::null:
      return {};
    case boost::json::kind::bool_:
      return value.get_bool();
    case boost::json::kind::int64:
      return value.get_int64();
    case boost::json::kind::uint64: {
      const std::uint64_t u = value.get_uint64();
      if (u <= static_cast<std::uint64_t>(INT64_MAX)) return static_cast<std::int64_t>(u);
      return static_cast<double>(u);
    }
    case boost::json::kind::double_:
      return value.get_double();
    case boost::json::kind::string:
      return std::string(value.get_string());
    case boost::json::kind::array: {
      List list;
      list.reserve(value.get_array().size());
      for (const auto& element : value.get_array()) list.push_back(from_json(element));
      return list;
    }
    case boost::json::kind::object: {
      Map map;
      map.reserve(value.get_object().size());
      for (const auto& [key, element] : value.get_object()) {
        map.insert_or_assign(std::string(key), from_json(element));
      }
      return map;
    }
  }
  return {};
}

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void write(const Any& value) {
    switch (value.kind()) {
      case Any::Kind::None:
        out_ += "null";
        return;
      case Any::Kind::Bool:
        out_ += value.as_bool() ? "true" : "false";
        return;
      case Any::Kind::Int:
        out_ += std::to_string(value.as_int());
        return;
      case Any::Kind::Float: {
        const double d = value.as_float();
        if (!std::isfinite(d)) throw ValueError("JSON cannot hold the float " + value.repr());
        text::append_float(out_, d);
        return;
      }
      case Any::Kind::String:
        text::append_json_string(out_, value.as_string());
        return;
      case Any::Kind::List: {
        enter(&value.as_list());
        out_.push_back('[');
        bool first = true;
        for (const Any& element : value.as_list()) {
          if (!first) out_ += ", ";
          first = false;
          write(element);
        }
        out_.push_back(']');
        active_.pop_back();
        return;
      }
      case Any::Kind::Map: {
        enter(&value.as_map());
        out_.push_back('{');
        bool first = true;
        for (const auto& [key, element] : value.as_map()) {
          if (!first) out_ += ", ";
          first = false;
          text::append_json_string(out_, key);
          out_ += ": ";
          write(element);
        }
        out_.push_back('}');
        active_.pop_back();
        return;
      }
      case Any::Kind::Object:
        throw TypeError("Object of type " + value.type_name() + " is not JSON serializable");
    }
  }

 private:
  void enter(const void* container) {
    for (const void* active : active_) {
      if (active == container) throw ValueError("Circular reference detected");
    }
    if (active_.size() >= kMaxDepth) throw ValueError("value nesting is too deep for JSON");
    active_.push_back(container);
  }

  std::string& out_;
  std::vector<const void*> active_;
};

}  // namespace

Any parse_json(std::string_view text) {
  boost::json::parse_options options;
  options.allow_invalid_utf8 = true;
  options.max_depth = kMaxDepth;
  boost::system::error_code error;
  const boost::json::value value = boost::json::parse(text, error, {}, options);
  if (error) {
    std::string excerpt(text.substr(0, kExcerpt));
    if (text.size() > kExcerpt) excerpt += "...";
    throw ValueError("invalid JSON (" + error.message() + "): " + text::quoted(excerpt));
  }
  return from_json(value);
}

void append_json(std::string& out, const Any& value) {
  Writer(out).write(value);
}

std::string to_json(const Any& value) {
  std::string out;
  append_json(out, value);
  return out;
}

}  // namespace orvo_core
