#include "orvo_inference/request_processor/extractive_request_processor.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <vector>

#include "orvo_core/constants.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/utils/markdown.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_inference {

using orvo_core::Any;

namespace {

constexpr double kAnswerThreshold = 0.35;
constexpr double kJudgeThreshold = 0.3;

// How a sentence's score is made up (each part is a share in [0, 1] times its weight): the
// question's weight it holds, what its chunk holds, the question's words it opens with, what its
// chunk's innermost heading holds, whether it gives the kind of answer asked for, and whether it
// opens its chunk's prose (for definitions).
constexpr double kShareWeight = 0.4;
constexpr double kChunkWeight = 0.25;
constexpr double kSubjectWeight = 0.15;
constexpr double kAboutWeight = 0.1;
constexpr double kCueWeight = 0.15;
constexpr double kNumberWeight = 0.3;  // Without a number there is no answer to "how many".
constexpr double kLeadWeight = 0.1;
// A word of the question that a sentence's heading holds counts this much for the sentence.
constexpr double kHeadingCredit = 0.6;
// A sentence that only repeats the question, or asks one, loses this much.
constexpr double kRepeatPenalty = 0.15;
// A question word the context lacks may be a paraphrase as much as a missing subject: it weighs
// this much of what the rarest word of the context would.
constexpr double kAbsentWeight = 0.75;
// Below this share of the question's weight in any one chunk, the context does not hold the
// answer. Calibrated on eval/questions.jsonl: the unanswerable questions reach about 0.5, the
// answerable ones 0.65 and more once their chunk is retrieved.
constexpr double kMinEvidence = 0.6;
// Another sentence of the best one's chunk joins it when it scores this share of its score.
constexpr double kCloseToBest = 0.9;

const std::string& required_text(const orvo_core::Map& variables, std::string_view name) {
  const Any* value = orvo_core::find(variables, name);
  if (value == nullptr || !value->is_string()) {
    throw orvo_core::ValueError("the prompt variable '" + std::string(name) +
                                "' is missing or not a str");
  }
  return value->as_string();
}

std::vector<double> scores(const LexicalEMInvoker& embedder, std::string_view text,
                           const std::vector<std::string_view>& candidates) {
  std::vector<orvo_core::Embedding> rows;
  rows.reserve(candidates.size());
  for (const auto candidate : candidates) rows.push_back(embedder.embed(candidate));
  return orvo_core::cosine(embedder.embed(text), orvo_core::Embeddings::from_rows(rows));
}

// Words that frame a question rather than name its subject: "What causes X?" asks about X.
constexpr std::array<std::string_view, 21> kFrameWords = {
    "cause", "caused",  "happen", "happened", "mean", "meaning", "my",
    "need",  "purpose", "reason", "should",   "use",  "used",    "value",
    "want",  "we",      "where",  "who",      "whom", "whose",   "you"};

// What a question asks for.
enum class Asks { anything, cause, outcome, time, quantity, definition, procedure, place, person };

bool starts_with(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool contains(std::string_view s, std::string_view part) {
  return s.find(part) != std::string_view::npos;
}

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

Asks classify(std::string_view question) {
  const std::string q = lower(question);
  const auto has = [&q](std::string_view part) { return contains(q, part); };
  if (has("what happens")) return Asks::outcome;
  if (starts_with(q, "why") || has("cause") || has("reason") || has("what makes"))
    return Asks::cause;
  if (has("how many") || has("how much") || has("how long") || has("how big") || has("how high") ||
      has("default") || has("maximum") || has("minimum") || has("limit") || has("number of") ||
      has("what size") || has("which port") || has("what port"))
    return Asks::quantity;
  if (starts_with(q, "when") || has("what time") || has("how often")) return Asks::time;
  if (starts_with(q, "where")) return Asks::place;
  if (starts_with(q, "who")) return Asks::person;
  if (starts_with(q, "how")) return Asks::procedure;
  if (starts_with(q, "what") || starts_with(q, "which") || starts_with(q, "define"))
    return Asks::definition;
  return Asks::anything;
}

// How plainly a sentence gives the kind of answer asked for: 1 for a clear marker ("because" for
// a cause), 0.5 for a weak one ("so"), else 0.
double gives(Asks asks, std::string_view sentence) {
  const std::string s = " " + lower(sentence) + " ";
  const auto any = [&s](std::initializer_list<std::string_view> parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [&s](std::string_view part) { return contains(s, part); });
  };
  const auto graded = [&any](std::initializer_list<std::string_view> strong,
                             std::initializer_list<std::string_view> weak) {
    return any(strong) ? 1.0 : (any(weak) ? 0.5 : 0.0);
  };
  switch (asks) {
    case Asks::cause:
      return graded(
          {" because ", " due to ", " caused by ", " result of ", " as a result", " since ",
           " therefore ", " reason "},
          {" so ", " when ", " thus ", " leads ", " results ", " if ", " occur", " happen"});
    case Asks::outcome:
      return graded({" will ", " is thrown", " results in ", " then "}, {" is ", " are "});
    case Asks::time:
      return graded({" when ", " whenever ", " after ", " before ", " once ", " until "},
                    {" during ", " while ", " every ", " at "});
    case Asks::quantity:
      // A number on its own ("10", "16384", "127.0.0.1:9229"), not one inside a name ("v8").
      for (std::size_t i = 1; i < s.size(); ++i) {
        if (std::isdigit(static_cast<unsigned char>(s[i])) != 0 &&
            std::isalpha(static_cast<unsigned char>(s[i - 1])) == 0)
          return 1.0;
      }
      return 0.0;
    case Asks::definition:
      return graded({" is a ", " is an ", " is the ", " are ", " means ", " refers to ",
                     " is called ", " represent", " returns ", " provides ", " enables ",
                     " allows ", " is used ", " used to ", " sets "},
                    {" is ", " can "});
    case Asks::procedure:
      return graded({" by setting ", " use ", " using ", " set ", " call ", " pass ", " run "},
                    {" by ", " can be "});
    case Asks::place:
      return graded({" lies ", " located ", " between "}, {" in ", " on the ", " at "});
    case Asks::person:
      return std::any_of(sentence.begin() + 1, sentence.end(),
                         [](unsigned char c) { return std::isupper(c) != 0; })
                 ? 1.0
                 : 0.0;
    case Asks::anything:
      return 0.0;
  }
  return 0.0;
}

// A rough stem, the same for a word and its common inflections ("emitted", "emits", "emit").
std::string stem(std::string word) {
  const auto ends = [&word](std::string_view suffix) {
    return word.size() > suffix.size() + 2 &&
           std::string_view(word).substr(word.size() - suffix.size()) == suffix;
  };
  if (ends("ing")) {
    word.resize(word.size() - 3);
  } else if (ends("ed")) {
    word.resize(word.size() - 2);
  }
  const std::size_t n = word.size();
  if (n > 3 && word[n - 1] == word[n - 2] &&
      std::string_view("lsz").find(word[n - 1]) == std::string_view::npos) {
    word.pop_back();
  }
  if (word.size() > 3 && word.back() == 'e') word.pop_back();
  // Agent nouns: "inspector" and "inspect", "listener" and "listen".
  if (word.size() > 6 && (ends("er") || ends("or"))) word.resize(word.size() - 2);
  return word;
}

bool is_name_byte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
}

// The stemmed words of a text, in order. A dotted or underscored name ("util.promisify",
// "ERR_HTTP_HEADERS_SENT") also counts whole, before its parts, so that it matches itself
// rather than every text that shares a part.
std::vector<std::string> stems(std::string_view text) {
  std::vector<std::string> out;
  for (std::size_t i = 0; i < text.size();) {
    if (!is_name_byte(text[i])) {
      ++i;
      continue;
    }
    std::size_t end = i;
    while (end < text.size() && is_name_byte(text[end])) ++end;
    std::string_view name = text.substr(i, end - i);
    const std::size_t first = name.find_first_not_of("._");
    if (first != std::string_view::npos) {
      name = name.substr(first, name.find_last_not_of("._") - first + 1);
      if (name.find_first_of("._") != std::string_view::npos) out.push_back(lower(name));
    }
    for (auto& word : LexicalEMInvoker::words(text.substr(i, end - i))) {
      out.push_back(stem(std::move(word)));
    }
    i = end;
  }
  return out;
}

// One sentence of the context (a list item counts as one), where it sits and its words.
struct Unit {
  std::string_view text;
  std::size_t passage = 0;  // The chunk it comes from, in context order.
  std::size_t block = 0;    // Its paragraph or list item.
  bool lead = false;        // The first sentence of prose in its chunk.
  std::vector<std::string> words;
};

// A chunk of the context as its heading line tells it.
struct Passage {
  std::set<std::string> words;  // Of the whole heading path.
  std::set<std::string> about;  // Of the innermost heading, which names what the chunk is about.
  std::string_view heading;     // The innermost heading.
};

struct Context {
  std::vector<Passage> passages;
  std::vector<Unit> units;
};

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

// `text` without its code spans.
std::string without_code(std::string_view text) {
  std::string out;
  bool code = false;
  for (const char c : text) {
    if (c == '`') {
      code = !code;
    } else if (!code) {
      out += c;
    }
  }
  return out;
}

// Reads a context: chunks that each start with a "# heading path" line, their paragraphs and
// list items one a line. Code blocks and tables hold no sentences to answer with.
Context read_context(std::string_view text) {
  Context context;
  context.passages.emplace_back();
  std::size_t block = 0;
  bool in_code = false;
  bool prose_seen = false;  // In this chunk.
  for (std::size_t pos = 0; pos < text.size();) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) eol = text.size();
    const std::string_view line = trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    ++block;
    if (starts_with(line, "```") || starts_with(line, "~~~")) {
      in_code = !in_code;
      continue;
    }
    if (in_code || line.empty() || line[0] == '|') continue;
    if (line[0] == '#') {
      if (!context.units.empty() || !context.passages.back().words.empty()) {
        context.passages.emplace_back();
      }
      prose_seen = false;
      Passage& passage = context.passages.back();
      for (auto& word : stems(line)) passage.words.insert(std::move(word));
      const std::size_t last = line.rfind(" > ");
      passage.heading = trim(line.substr(last == std::string_view::npos
                                             ? std::min(line.find_first_not_of('#'), line.size())
                                             : last + 3));
      for (auto& word : stems(passage.heading)) passage.about.insert(std::move(word));
      continue;
    }
    const std::size_t marker = orvo_core::list_marker(line);
    const auto add = [&](std::string_view sentence) {
      std::vector<std::string> words = stems(sentence);
      // "Returns: {string}", a name in a list and the like say too little to answer anything.
      if (words.size() < 3 || LexicalEMInvoker::words(without_code(sentence)).size() < 2) return;
      const std::size_t passage = context.passages.size() - 1;
      const bool lead = marker == 0 && !prose_seen;
      prose_seen = prose_seen || marker == 0;
      context.units.push_back({sentence, passage, block, lead, std::move(words)});
    };
    if (marker > 0) {
      add(trim(line.substr(marker)));
    } else {
      for (const auto sentence : orvo_core::split_sentences(line)) add(sentence);
    }
  }
  return context;
}

bool opens_with(std::string_view sentence, std::initializer_list<std::string_view> openings) {
  const std::string s = lower(sentence.substr(0, 16));
  return std::any_of(openings.begin(), openings.end(),
                     [&s](std::string_view opening) { return starts_with(s, opening); });
}

// Sentences that pick up the one before: "At those times ...", "Such a point ...".
bool continues(std::string_view sentence) {
  return opens_with(sentence, {"this ", "these ", "that ", "those ", "it ", "they ", "at those ",
                               "at that ", "such ", "so ", "then ", "as a result", "the result"});
}

// Sentences that open with a condition or a setting put their subject later, and are seldom
// what defines it.
bool subordinate(std::string_view sentence) {
  return opens_with(sentence, {"if ", "when ", "unless ", "although ", "while ", "because ",
                               "since ", "in ", "for ", "to ", "using ", "see ", "with "});
}

// The code span that a heading names its subject with ("`fs.existsSync(path)`"), if any.
std::string_view code_subject(std::string_view heading) {
  const std::size_t open = heading.find('`');
  const std::size_t close = open == std::string_view::npos ? open : heading.find('`', open + 1);
  if (close == std::string_view::npos || close == open + 1) return {};
  return heading.substr(open, close - open + 1);
}

// The name in such a code span: "fs.existsSync" of "`fs.existsSync(path)`".
std::string_view name_of(std::string_view subject) {
  const std::string_view inner = subject.substr(1, subject.size() - 2);
  return inner.substr(0, inner.find_first_of("(=[ "));
}

// How each sentence answers the question.
struct Scored {
  std::vector<double> score;
  std::vector<double> cue;  // How plainly each gives the kind of answer asked for, on its own.
  double evidence = 0.0;    // The largest share of the question's weight that one chunk holds.
};

Scored score_units(std::string_view question, const Context& context) {
  std::set<std::string> query;
  for (auto& word : stems(question)) query.insert(std::move(word));
  for (const auto word : kFrameWords) query.erase(stem(std::string(word)));
  const auto& units = context.units;
  Scored out{std::vector<double>(units.size(), 0.0), std::vector<double>(units.size(), 0.0), 0.0};
  if (query.empty() || units.empty()) return out;
  // Rare words weigh most: inverse frequency among the context's sentences.
  std::map<std::string, double> weight;
  double total = 0.0;
  const auto n = static_cast<double>(units.size());
  for (const auto& word : query) {
    const auto df =
        static_cast<double>(std::count_if(units.begin(), units.end(), [&](const Unit& u) {
          return std::find(u.words.begin(), u.words.end(), word) != u.words.end();
        }));
    weight[word] = std::log(1.0 + (n - df + 0.5) / (df + 0.5)) * (df == 0 ? kAbsentWeight : 1.0);
    total += weight[word];
  }
  // What each chunk holds of the question, heading included.
  std::vector<std::set<std::string>> held(context.passages.size());
  for (std::size_t p = 0; p < held.size(); ++p) {
    for (const auto& word : query) {
      if (context.passages[p].words.count(word) != 0) held[p].insert(word);
    }
  }
  for (const Unit& unit : units) {
    for (const auto& word : unit.words) {
      if (query.count(word) != 0) held[unit.passage].insert(word);
    }
  }
  std::vector<double> passage_share(held.size(), 0.0);
  for (std::size_t p = 0; p < held.size(); ++p) {
    for (const auto& word : held[p]) passage_share[p] += weight[word] / total;
    out.evidence = std::max(out.evidence, passage_share[p]);
  }
  const Asks asks = classify(question);
  for (std::size_t i = 0; i < units.size(); ++i) {
    const Unit& unit = units[i];
    const std::set<std::string> own(unit.words.begin(), unit.words.end());
    double share = 0.0;
    double subject = 0.0;
    double about = 0.0;
    for (const auto& word : query) {
      if (own.count(word) != 0) {
        share += weight[word] / total;
      } else if (context.passages[unit.passage].words.count(word) != 0) {
        share += kHeadingCredit * weight[word] / total;
      }
      // The subject opens the sentence: the earlier the word, the more it counts.
      const auto at = static_cast<std::size_t>(
          std::find(unit.words.begin(), unit.words.end(), word) - unit.words.begin());
      if (at < 4) subject += (1.0 - 0.25 * static_cast<double>(at)) * weight[word] / total;
      if (context.passages[unit.passage].about.count(word) != 0) about += weight[word] / total;
    }
    if (subordinate(unit.text)) subject = 0.0;
    const auto novel = std::count_if(
        own.begin(), own.end(), [&query](const std::string& w) { return query.count(w) == 0; });
    // The answer a sentence starts counts with the sentence that carries it on.
    out.cue[i] = gives(asks, unit.text);
    double cue = out.cue[i];
    if (i + 1 < units.size() && units[i + 1].block == unit.block && continues(units[i + 1].text)) {
      cue = std::max(cue, gives(asks, units[i + 1].text));
    }
    // A definition opens its section; other answers may sit anywhere.
    const bool defines = asks == Asks::definition || asks == Asks::anything;
    double score = kShareWeight * share + kChunkWeight * passage_share[unit.passage] +
                   kSubjectWeight * subject + kAboutWeight * about +
                   (asks == Asks::quantity ? kNumberWeight : kCueWeight) * cue +
                   (defines && unit.lead ? kLeadWeight : 0.0);
    if (novel < 3) score -= kRepeatPenalty;
    if (unit.text.back() == '?') score -= kRepeatPenalty;
    out.score[i] = score;
  }
  return out;
}

}  // namespace

ExtractiveRequestProcessor::ExtractiveRequestProcessor(Task task, double min_similarity,
                                                       std::size_t max_sentences)
    : task(task),
      min_similarity(min_similarity >= 0.0
                         ? min_similarity
                         : (task == Task::answer ? kAnswerThreshold : kJudgeThreshold)),
      max_sentences(max_sentences) {}

std::string ExtractiveRequestProcessor::answer(std::string_view query,
                                               std::string_view context) const {
  const Context read = read_context(context);
  const Scored scored = score_units(query, read);
  const auto& units = read.units;
  const auto& score = scored.score;
  if (units.empty() || scored.evidence < kMinEvidence) return std::string(kNoAnswer);
  const std::size_t best =
      static_cast<std::size_t>(std::max_element(score.begin(), score.end()) - score.begin());
  if (score[best] < min_similarity) return std::string(kNoAnswer);
  std::vector<std::size_t> chosen{best};
  const auto take = [&](std::size_t i) {
    const bool repeated = std::any_of(chosen.begin(), chosen.end(), [&](std::size_t j) {
      return units[j].text == units[i].text;
    });
    if (chosen.size() < std::max<std::size_t>(max_sentences, 1) && !repeated) chosen.push_back(i);
  };
  // The sentences around the best one that it leans on ("Such a point ...") or that carry its
  // thought on ("At those times ...").
  if (best > 0 && units[best - 1].block == units[best].block && continues(units[best].text)) {
    take(best - 1);
  }
  if (best + 1 < units.size() && units[best + 1].block == units[best].block &&
      continues(units[best + 1].text)) {
    take(best + 1);
  }
  // When it stands alone, the next best of its chunk if nearly as good and as plain: a sentence
  // of another chunk would add another subject more often than more of the answer.
  std::vector<std::size_t> order(units.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&score](std::size_t a, std::size_t b) { return score[a] > score[b]; });
  for (const std::size_t i : order) {
    if (chosen.size() > 1 || score[i] < kCloseToBest * score[best]) break;
    if (units[i].passage == units[best].passage && scored.cue[i] >= scored.cue[best]) take(i);
  }
  std::sort(chosen.begin(), chosen.end());
  std::string text;
  std::set<std::size_t> named;  // Passages whose subject the answer has named.
  for (const std::size_t i : chosen) {
    if (!text.empty()) text += ' ';
    const std::string_view subject = code_subject(read.passages[units[i].passage].heading);
    if (!subject.empty() && named.insert(units[i].passage).second &&
        units[i].text.find(name_of(subject)) == std::string_view::npos) {
      // "Returns `true` if the path exists" needs the heading to say what does.
      text += subject;
      text += ": ";
    }
    text += units[i].text;
  }
  return text;
}

Any ExtractiveRequestProcessor::judge(std::string_view response, std::string_view context) const {
  static constexpr std::string_view kMarker = "[CHUNK]\n";
  static constexpr std::string_view kContent = "\nContent:\n";
  std::string key;
  std::vector<Any> labels;
  std::vector<std::string_view> contents;
  std::size_t at = context.find(kMarker);
  while (at != std::string_view::npos) {
    const std::size_t next = context.find("\n\n" + std::string(kMarker), at);
    const std::string_view block = context.substr(
        at + kMarker.size(),
        next == std::string_view::npos ? std::string_view::npos : next - at - kMarker.size());
    const std::size_t content = block.find(kContent);
    const std::size_t colon = block.find(": ");
    if (content == std::string_view::npos || colon == std::string_view::npos || colon > content) {
      throw orvo_core::ValueError("the context is not in the [CHUNK] layout");
    }
    key = std::string(block.substr(0, colon));
    const std::string_view label = block.substr(colon + 2, content - colon - 2);
    labels.push_back(label == "None" ? Any() : Any(label));
    contents.push_back(block.substr(content + kContent.size()));
    at = next == std::string_view::npos ? next : next + 2;
  }
  orvo_core::List relevant;
  if (!contents.empty()) {
    const std::vector<double> score = scores(embedder_, response, contents);
    for (std::size_t i = 0; i < contents.size(); ++i) {
      if (score[i] >= min_similarity) relevant.push_back(labels[i]);
    }
  }
  orvo_core::Map result;
  result.emplace(key.empty() ? std::string("file_name") : key, std::move(relevant));
  return result;
}

orvo_core::Awaitable<Any> ExtractiveRequestProcessor::process(
    std::shared_ptr<orvo_core::Map> prompt_kwargs, Any /*history*/,
    std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any /*system_multimodal_contents*/,
    Any /*user_multimodal_contents*/) {
  const orvo_core::Map no_variables;
  const orvo_core::Map& variables = prompt_kwargs ? *prompt_kwargs : no_variables;
  if (task == Task::judge) {
    co_return judge(required_text(variables, "response"), required_text(variables, "context"));
  }
  std::string text = answer(required_text(variables, "query"), required_text(variables, "context"));
  if (event_emitter) {
    // Word by word, the way a model streams its reply.
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find(' ', start + 1);
      if (end == std::string::npos) end = text.size();
      std::string token = text.substr(start, end - start);
      co_await event_emitter->emit(std::move(token), orvo_core::EventLevel::INFO,
                                   orvo_core::EventType::RESPONSE);
      start = end;
    }
  }
  co_return Any(std::move(text));
}

}  // namespace orvo_inference
