// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/answers.h"

#include <variant>

#include "core_service/channel/glib.h"

namespace zelta::core_service {
namespace {

constexpr const char* kNoSession = "there is no such session: it has ended, or never was";

void add_header(http_answer& answer, const char* name, const std::string& value) {
  if (!value.empty()) answer.headers.emplace_back(name, value);
}

http_answer refused(const publishers::refusal& why) {
  http_answer answer = in_words(why.status >= 400 && why.status < 600 ? why.status : 500, why.why);
  if (why.retry_after_s > 0) add_header(answer, "Retry-After", std::to_string(why.retry_after_s));
  return answer;
}

// RFC 9725, section 4.2.
http_answer answer_of_opened(const publishers::opened& session, const std::string& path) {
  http_answer answer{201, kOfferType, session.answer, {}};
  const text_ptr last(g_uri_escape_string(session.session.c_str(), nullptr, FALSE));
  const std::string place = path + "/" + last.get();
  add_header(answer, "Location", place);
  // RFC 5989, section 4.
  add_header(answer, "Link", "<" + place + "/" + kEventsPart + ">; rel=\"monitor\"");
  add_header(answer, "ETag", session.etag);
  add_header(answer, "Accept-Patch", kFragmentType);
  return answer;
}

// RFC 9725, section 4.3.
http_answer answer_of_patched(const publishers::patched& session) {
  http_answer answer{204, "", "", {}};
  if (!session.fragment.empty()) answer = {200, kFragmentType, session.fragment, {}};
  add_header(answer, "ETag", session.etag);
  return answer;
}

}  // namespace

http_answer in_words(int status, const std::string& why) {
  return {status, "text/plain; charset=utf-8", why + "\n", {}};
}

http_answer answer_of(publishers& asked, const whip_question& question) {
  if (question.what == whip_question::kPublish) {
    const auto result = asked.publish(question.user, question.body);
    if (const auto* const why = std::get_if<publishers::refusal>(&result)) return refused(*why);
    return answer_of_opened(*std::get_if<publishers::opened>(&result), question.path);
  }
  if (question.what == whip_question::kPatch) {
    const auto result = asked.patch(question.session, question.body, question.if_match);
    if (const auto* const why = std::get_if<publishers::refusal>(&result)) return refused(*why);
    return answer_of_patched(*std::get_if<publishers::patched>(&result));
  }
  if (question.what == whip_question::kWatch) {
    if (!asked.has(question.session)) return in_words(404, kNoSession);
    return {200, kEventsType, "", {{"Cache-Control", "no-store"}}, question.session};
  }
  return asked.end(question.session) ? http_answer{200, "", "", {}} : in_words(404, kNoSession);
}

}  // namespace zelta::core_service
