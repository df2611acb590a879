#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "base/System.h"
#include "world/Scene.h"

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wnull-dereference"
#endif
#include <toml++/toml.h>

namespace pulsekit::simulator {

namespace {

// Where a comment or a text that begins here ends, else the next character.
size_t pastCommentOrText(std::string_view text, size_t at) {
  const char first = text[at];
  if (first == '#') return std::min(text.find('\n', at), text.size());
  if (first != '"' && first != '\'') return at + 1;
  const bool escapes = first == '"';
  const bool block = text.substr(at + 1, 2) == std::string(2, first);
  for (at += block ? 3 : 1; at < text.size(); ++at) {
    if (text[at] == '\\' && escapes) {
      ++at;
    } else if (text[at] == '\n' && !block) {
      return at;
    } else if (text[at] == first && (!block || text.substr(at, 3) == std::string(3, first))) {
      // A block may end in quotes of its own.
      return block ? std::min(text.find_first_not_of(first, at), text.size()) : at + 1;
    }
  }
  return text.size();
}

// The line of the first character that is not ASCII outside comments and texts, 0 without one. The parser takes such
// characters for parts of names, which they can't be.
size_t strangeLine(std::string_view text) {
  for (size_t at = text.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0; at < text.size(); at = pastCommentOrText(text, at)) {
    if (static_cast<unsigned char>(text[at]) < 0x80) continue;
    return 1 + static_cast<size_t>(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
  }
  return 0;
}

class SceneError : public std::runtime_error {
 public:
  SceneError(const std::string &message, const toml::source_region &place)
      : std::runtime_error("line " + std::to_string(place.begin.line) + ": " + message) {}
};

void allowOnly(const toml::table &table, std::initializer_list<std::string_view> names) {
  for (const auto &[key, value] : table)
    if (std::find(names.begin(), names.end(), key.str()) == names.end())
      throw SceneError("unknown key '" + std::string(key.str()) + "'", key.source());
}

const toml::node &need(const toml::table &table, std::string_view name) {
  if (const toml::node *node = table.get(name)) return *node;
  throw SceneError("'" + std::string(name) + "' is missing", table.source());
}

double number(const toml::node &node, std::string_view name) {
  if (const auto *whole = node.as_integer()) return static_cast<double>(whole->get());  // rounded beyond 2^53
  if (const auto *real = node.as_floating_point()) return real->get();
  throw SceneError("'" + std::string(name) + "' must be a number", node.source());
}

double numberOf(const toml::table &table, std::string_view name) { return number(need(table, name), name); }

double numberOr(const toml::table &table, std::string_view name, double fallback) {
  const toml::node *node = table.get(name);
  return node ? number(*node, name) : fallback;
}

Reflector readReflector(const toml::table &table) {
  Reflector reflector;
  reflector.range = numberOf(table, "range");
  reflector.strength = numberOf(table, "strength");
  const toml::node *node = table.get("motion");
  const std::string motion = node ? node->value_or(std::string()) : "still";
  if (motion == "still") {
    allowOnly(table, {"range", "strength", "motion"});
  } else if (motion == "speed") {
    allowOnly(table, {"range", "strength", "motion", "speed"});
    reflector.motion = Reflector::Motion::speed;
    reflector.speed = numberOf(table, "speed");
  } else if (motion == "breathing") {
    allowOnly(table, {"range", "strength", "motion", "amplitude", "rate"});
    reflector.motion = Reflector::Motion::breathing;
    reflector.amplitude = numberOf(table, "amplitude");
    reflector.rate = numberOf(table, "rate");
  } else {
    throw SceneError("'motion' must be \"still\", \"speed\" or \"breathing\"", node->source());
  }
  return reflector;
}

std::string textOr(const toml::table &table, std::string_view name, const std::string &fallback) {
  const toml::node *node = table.get(name);
  if (!node) return fallback;
  if (!node->is_string()) throw SceneError("'" + std::string(name) + "' must be a text", node->source());
  return node->value_or(std::string());
}

std::optional<std::string> partOr(const toml::table &table, std::string_view name,
                                  const std::optional<std::string> &fallback) {
  const std::string text = textOr(table, name, *fallback);
  return text == "none" ? std::nullopt : std::optional(text);
}

SceneRadar readRadar(const toml::table &table) {
  allowOnly(table, {"serial", "bridge", "board", "chip", "held"});
  SceneRadar radar;
  radar.serial = textOr(table, "serial", radar.serial);
  radar.bridge = textOr(table, "bridge", radar.bridge);
  radar.board = partOr(table, "board", radar.board);
  radar.chip = radar.board ? partOr(table, "chip", radar.chip) : std::nullopt;
  radar.held = table["held"].value_or(false);
  return radar;
}

// Calls for each table of [[name]].
template <typename Read>
void forEach(const toml::table &table, std::string_view name, const Read &read) {
  const toml::node *tables = table.get(name);
  if (!tables) return;
  const auto fail = [&](const toml::node &node) {
    throw SceneError("'" + std::string(name) + "' must be written as [[" + std::string(name) + "]]", node.source());
  };
  if (!tables->is_array()) fail(*tables);
  for (const toml::node &node : *tables->as_array()) {
    if (!node.is_table()) fail(node);
    read(*node.as_table());
  }
}

Scene readTable(const toml::table &table) {
  allowOnly(table, {"noise", "direct_coupling", "unplugged_at", "plugged_at", "reflector", "radar"});
  Scene scene;
  scene.noise = numberOr(table, "noise", 0);
  scene.directCoupling = numberOr(table, "direct_coupling", 0);
  if (table.contains("unplugged_at")) scene.unpluggedAt = numberOf(table, "unplugged_at");
  if (table.contains("plugged_at")) scene.pluggedAt = numberOf(table, "plugged_at");
  forEach(table, "reflector", [&](const toml::table &each) { scene.reflectors.push_back(readReflector(each)); });
  forEach(table, "radar", [&](const toml::table &each) { scene.radars.push_back(readRadar(each)); });
  return scene;
}

}  // namespace

std::optional<Scene> parseScene(const std::string &text, const std::string &name, std::string &error) {
  if (const size_t line = strangeLine(text)) {
    error = name + ": line " + std::to_string(line) + ": only comments and texts may hold characters beyond ASCII";
    return std::nullopt;
  }
  try {
    Scene scene = readTable(toml::parse(text));
    const char *fault = sceneFault(scene);
    if (!fault) return scene;
    error = name + ": " + fault;
  } catch (const toml::parse_error &failure) {
    error = name + ": line " + std::to_string(failure.source().begin.line) + ": " + std::string(failure.description());
  } catch (const SceneError &failure) {
    error = name + ": " + failure.what();
  }
  return std::nullopt;
}

std::optional<Scene> readScene(const std::string &path, std::string &error) {
  std::ifstream file(pathOf(path), std::ios::binary);
  std::ostringstream text;
  const bool opened = file.is_open();
  if (opened && file.peek() != std::ifstream::traits_type::eof()) text << file.rdbuf();
  if (!opened || file.bad() || text.fail()) {
    error = path + ": cannot be read";
    return std::nullopt;
  }
  return parseScene(text.str(), path, error);
}

}  // namespace pulsekit::simulator
