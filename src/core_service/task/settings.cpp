// SPDX-License-Identifier: Apache-2.0
#include "core_service/task/settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include <arpa/inet.h>
#include <fcntl.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace zelta::core_service {
namespace {

constexpr size_t kMostBytes = 1 << 20;
constexpr int kDeepest = 16;
// A file of another kind may be wrong in each of its thousand keys.
constexpr size_t kMostErrors = 20;
constexpr size_t kLongestShown = 80;

// Of a text that is one of a machine's own: a path, a list of addresses.
constexpr int kLongestText = 4096;

constexpr const char* kExample = "it should hold a JSON object such as {\"most_users\": 50}";

std::string shortened(std::string text) {
  if (text.size() > kLongestShown) text.replace(kLongestShown, std::string::npos, "...");
  return text;
}

// As it may stand in a log or on a terminal.
std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

std::string json_text(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["precision"] = 15;
  return shortened(printable(Json::writeString(writer, value)));
}

// One that isn't a plain word is quoted, so that {"ports.from": 1} isn't taken for the key of that
// path.
std::string key_text(const std::string& name) {
  const bool plain = !name.empty() && name.size() <= kLongestShown &&
                     std::all_of(name.begin(), name.end(), [](char c) {
                       return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                              (c >= '0' && c <= '9') || c == '_';
                     });
  return plain ? name : json_text(Json::Value(name));
}

// RFC 8259, section 6. The parser also takes 01, +1, 1. and a minus alone.
bool is_number(const std::string& text) {
  const char* at = text.c_str();
  const auto skip_digits = [&at] {
    const char* const first = at;
    while (*at >= '0' && *at <= '9') ++at;
    return at != first;
  };
  if (*at == '-') ++at;
  if (*at == '0') {
    ++at;
  } else if (!skip_digits()) {
    return false;
  }
  if (*at == '.' && (++at, !skip_digits())) return false;
  if (*at == 'e' || *at == 'E') {
    ++at;
    if (*at == '+' || *at == '-') ++at;
    if (!skip_digits()) return false;
  }
  return *at == '\0';
}

// Whether packets may be sent to it.
bool is_host_address(const std::string& text) {
  in_addr four{};
  if (inet_pton(AF_INET, text.c_str(), &four) == 1) {
    return four.s_addr != INADDR_ANY && !IN_MULTICAST(ntohl(four.s_addr));
  }
  in6_addr six{};
  return inet_pton(AF_INET6, text.c_str(), &six) == 1 && !IN6_IS_ADDR_UNSPECIFIED(&six) &&
         !IN6_IS_ADDR_MULTICAST(&six);
}

// Of the parser's report, "* Line 1, Column 2\n  Fault\n" for each; the others follow from it.
std::string first_fault(const std::string& report) {
  const std::string first = report.substr(0, report.find("\n*"));
  std::string line;
  for (const char c : first.substr(std::min<size_t>(first.size(), 2))) {
    if (c != '\n') line += c;
  }
  const size_t fault = line.find("  ");
  if (fault != std::string::npos) line.replace(fault, 2, ": ");
  return shortened(printable(line));
}

// One pass over one file.
class settings_reader {
 public:
  settings_reader(const std::string& path, const std::string& text,
                  const std::vector<setting>& known)
      : path_(path), text_(text), known_(known) {}

  loaded_settings read();

 private:
  bool parse(Json::Value& root);
  void read_object(const Json::Value& object, const std::string& prefix);
  void read_value(const Json::Value& value, const setting& what);
  void check_ports();
  void check_whip();
  std::string fault_of_number(const Json::Value& value, const setting& what);
  std::string fault_of_word(const Json::Value& value, const setting& what);
  std::string fault_of_text(const Json::Value& value, const setting& what);
  void add_error(const std::string& what);

  const std::string& path_;
  const std::string& text_;
  const std::vector<setting>& known_;
  loaded_settings read_;
  size_t untold_ = 0;
};

loaded_settings settings_reader::read() {
  Json::Value root;
  if (!parse(root)) return std::move(read_);
  read_object(root, "");
  check_ports();
  check_whip();
  if (untold_ > 0) read_.errors.push_back(path_ + ": and " + std::to_string(untold_) + " more");
  return std::move(read_);
}

bool settings_reader::parse(Json::Value& root) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["skipBom"] = false;
  builder["stackLimit"] = kDeepest;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string report;
  if (!reader->parse(text_.data(), text_.data() + text_.size(), &root, &report)) {
    add_error(first_fault(report) + "; " + kExample);
    return false;
  }
  if (!root.isObject()) add_error(json_text(root) + " is no object; " + kExample);
  return root.isObject();
}

void settings_reader::read_object(const Json::Value& object, const std::string& prefix) {
  for (const std::string& name : object.getMemberNames()) {
    const Json::Value& value = object[name];
    const std::string key = prefix + key_text(name);
    const auto row = std::find_if(known_.begin(), known_.end(),
                                  [&key](const setting& one) { return key == one.name; });
    const std::string inner = names_in(known_, key + ".");
    if (row != known_.end()) {
      read_value(value, *row);
    } else if (inner.empty()) {
      add_error(key + ": no such setting; " + names_in(known_, prefix) + " are");
    } else if (value.isObject()) {
      read_object(value, key + ".");
    } else {
      add_error((key + ": " + json_text(value) + " should be an object with ").append(inner));
    }
  }
}

void settings_reader::read_value(const Json::Value& value, const setting& what) {
  const bool is_text = std::holds_alternative<std::string recorder_settings::*>(what.value);
  const bool is_word = what.words[0] != nullptr;
  const std::string fault = is_text   ? fault_of_text(value, what)
                            : is_word ? fault_of_word(value, what)
                                      : fault_of_number(value, what);
  if (!fault.empty()) add_error(std::string(what.name) + ": " + fault);
}

std::string settings_reader::fault_of_number(const Json::Value& value, const setting& what) {
  const std::string right = " should be a whole number of " + what.range();
  if (!value.isNumeric()) return json_text(value) + right;
  const auto start = static_cast<size_t>(value.getOffsetStart());
  const std::string written =
      text_.substr(start, static_cast<size_t>(value.getOffsetLimit()) - start);
  if (!is_number(written)) return shortened(written) + " is no number of JSON; it" + right;
  if (!value.isInt() || !what.fits(value.asInt())) return shortened(written) + right;
  read_.values.*std::get<int recorder_settings::*>(what.value) = value.asInt();
  return "";
}

std::string settings_reader::fault_of_word(const Json::Value& value, const setting& what) {
  std::string choices;
  for (size_t place = 0; place < what.words.size() && what.words[place] != nullptr; ++place) {
    if (value.isString() && value.asString() == what.words[place]) {
      read_.values.*std::get<int recorder_settings::*>(what.value) = static_cast<int>(place);
      return "";
    }
    choices += std::string(place == 0 ? "" : " or ") + "\"" + what.words[place] + "\"";
  }
  return json_text(value) + " should be " + choices;
}

std::string settings_reader::fault_of_text(const Json::Value& value, const setting& what) {
  const bool secret = what.kind == setting::kSecret;
  const std::string text = value.isString() ? value.asString() : "";
  const bool fits = what.fits(static_cast<int>(text.size()));
  const bool taken = std::all_of(text.begin(), text.end(), [secret](char c) {
    return secret ? c > ' ' && c <= '~' : static_cast<unsigned char>(c) >= ' ' && c != '\x7f';
  });
  if (value.isString() && fits && taken) {
    read_.values.*std::get<std::string recorder_settings::*>(what.value) = text;
    return "";
  }
  return (secret ? "its value" : json_text(value)) + " should be a text of " + what.range() +
         (secret ? " printable ASCII characters without spaces" : " bytes, no control characters");
}

// RFC 3550, section 11: an even port, and the one above it for RTCP.
void settings_reader::check_ports() {
  const int first = read_.values.first_port;
  const int last = read_.values.last_port;
  const int needed = first + first % 2 + 1;
  if (first == 0 || last == 0 || last >= needed) return;
  add_error("ports.to: " + std::to_string(last) + " should be at least " + std::to_string(needed) +
            ", so that there is an even port from ports.from, " + std::to_string(first) +
            ", on and the one above it");
}

void settings_reader::check_whip() {
  const recorder_settings& is = read_.values;
  if (is.whip_certificate.empty() != is.whip_key.empty()) {
    const bool has_key = is.whip_certificate.empty();
    const std::string given = has_key ? "whip.key" : "whip.certificate";
    const std::string& path = has_key ? is.whip_key : is.whip_certificate;
    add_error((has_key ? "whip.certificate" : "whip.key") + (": should be given too, as " + given) +
              " is, " + json_text(Json::Value(path)) + ", or neither of them");
  }
  const std::string& all = is.whip_address;
  for (size_t at = 0; !all.empty() && at <= all.size();) {
    const size_t end = std::min(all.find(',', at), all.size());
    const std::string one = all.substr(at, end - at);
    if (!is_host_address(one)) {
      add_error(
          "whip.address: " + json_text(Json::Value(one)) +
          " should be the IP address of a host, such as 192.0.2.7 or 2001:db8::7; several are "
          "split by commas without spaces");
    }
    at = end + 1;
  }
}

void settings_reader::add_error(const std::string& what) {
  if (read_.errors.size() < kMostErrors) {
    read_.errors.push_back(path_ + ": " + what);
  } else {
    ++untold_;
  }
}

// Empty, with `fault` saying why, when there is nothing to be had. What it opens may be a FIFO that
// nobody fills.
std::optional<std::string> read_file(const std::string& path, std::string& fault) {
  const base::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0) {
    fault = std::string("can't be read: ") + std::strerror(errno);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    fault = "should be a plain file";
    return std::nullopt;
  }
  std::string text;
  char part[4096];
  while (text.size() <= kMostBytes) {
    const ssize_t got = read(file.get(), part, sizeof part);
    if (got == 0) return text;
    if (got > 0) {
      text.append(part, static_cast<size_t>(got));
    } else if (errno != EINTR) {
      fault = std::string("can't be read: ") + std::strerror(errno);
      return std::nullopt;
    }
  }
  fault = "should have 1 MiB at most";
  return std::nullopt;
}

// The parser throws on nesting that is too deep, everything on memory that is not to be had.
template <class Read>
loaded_settings without_throwing(const std::string& path, Read read) {
  try {
    return read();
  } catch (const std::exception& e) {
    return {{}, {path + ": can't be read: " + e.what() + "; " + kExample}};
  }
}

}  // namespace

const std::vector<setting>& known_settings() {
  // Settings of one object stand together.
  static const std::vector<setting> kKnown = {
      {{"most_users", &recorder_settings::most_users, 1, 100'000}},
      {{"ports.from", &recorder_settings::first_port, 1024, 65534}},
      {{"ports.to", &recorder_settings::last_port, 1025, 65535}},
      {{"sound", &recorder_settings::sound, 0, 0, {"as it comes", "aac"}}},
      {{"volumes", &recorder_settings::volumes, 0, 0, {"as told", "all", "none"}}},
      {{"whip.token", &recorder_settings::whip_token, 1, 1024}, setting::kSecret},
      {{"whip.certificate", &recorder_settings::whip_certificate, 1, kLongestText}},
      {{"whip.key", &recorder_settings::whip_key, 1, kLongestText}},
      {{"whip.address", &recorder_settings::whip_address, 1, kLongestText}},
      {{"janus.api_secret", &recorder_settings::janus_api_secret, 1, 1024}, setting::kSecret},
  };
  return kKnown;
}

loaded_settings load_settings(const std::string& path) {
  return without_throwing(path, [&path]() -> loaded_settings {
    std::string fault;
    const std::optional<std::string> text = read_file(path, fault);
    if (!text) return {{}, {path + ": " + fault}};
    return settings_reader(path, *text, known_settings()).read();
  });
}

loaded_settings load_settings_of_environment() {
  const char* const path = std::getenv(kSettingsVariable);
  return path == nullptr || *path == '\0' ? loaded_settings() : load_settings(path);
}

loaded_settings parse_settings(const std::string& path, const std::string& text,
                               const std::vector<setting>& known) {
  return without_throwing(path, [&] { return settings_reader(path, text, known).read(); });
}

}  // namespace zelta::core_service
