// SPDX-License-Identifier: Apache-2.0
#include "crowd/srtp.h"

#include <utility>

#ifdef ZELTA_HAVE_SRTP
#include <srtp2/srtp.h>
#endif

namespace zelta::crowd {
namespace {

constexpr size_t kKeyAndSalt = 30;

#ifdef ZELTA_HAVE_SRTP
// A session a stream: libsrtp2 looks for the stream of an SSRC in a list.
class libsrtp_sender final : public srtp_sender {
 public:
  explicit libsrtp_sender(std::vector<uint8_t> key) : key_(std::move(key)) {
    static const bool begun = srtp_init() == srtp_err_status_ok;
    srtp_policy_t policy{};
    srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtp);
    srtp_crypto_policy_set_aes_cm_128_hmac_sha1_80(&policy.rtcp);
    policy.ssrc.type = ssrc_any_outbound;
    policy.key = key_.data();
    if (!begun || srtp_create(&session_, &policy) != srtp_err_status_ok) session_ = nullptr;
  }
  libsrtp_sender(const libsrtp_sender&) = delete;
  libsrtp_sender& operator=(const libsrtp_sender&) = delete;
  ~libsrtp_sender() override {
    if (session_ != nullptr) srtp_dealloc(session_);
  }

  bool ready() const { return session_ != nullptr; }
  size_t protect(uint8_t* rtp, size_t size) override { return with(srtp_protect, rtp, size); }
  size_t protect_rtcp(uint8_t* rtcp, size_t size) override {
    return with(srtp_protect_rtcp, rtcp, size);
  }

 private:
  template <class Protect>
  size_t with(Protect call, uint8_t* packet, size_t size) {
    int length = static_cast<int>(size);
    return call(session_, packet, &length) == srtp_err_status_ok ? static_cast<size_t>(length) : 0;
  }

  std::vector<uint8_t> key_;
  srtp_t session_ = nullptr;
};
#endif

}  // namespace

std::vector<uint8_t> srtp_key(const std::string& base64) {
  static const std::string digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::vector<uint8_t> key;
  uint32_t bits = 0;
  // 30 bytes are 40 digits, without padding.
  for (size_t i = 0; i < base64.size(); ++i) {
    const size_t digit = digits.find(base64[i]);
    if (digit == std::string::npos) return {};
    bits = bits << 6 | static_cast<uint32_t>(digit);
    if (i % 4 != 3) continue;
    key.push_back(static_cast<uint8_t>(bits >> 16));
    key.push_back(static_cast<uint8_t>(bits >> 8));
    key.push_back(static_cast<uint8_t>(bits));
  }
  return key.size() == kKeyAndSalt && base64.size() % 4 == 0 ? key : std::vector<uint8_t>{};
}

std::unique_ptr<srtp_sender> srtp_sender::make([[maybe_unused]] const std::vector<uint8_t>& key) {
#ifdef ZELTA_HAVE_SRTP
  auto sender = std::make_unique<libsrtp_sender>(key);
  if (sender->ready()) return sender;
#endif
  return nullptr;
}

}  // namespace zelta::crowd
