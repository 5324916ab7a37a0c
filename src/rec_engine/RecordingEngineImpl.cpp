// SPDX-License-Identifier: Apache-2.0
// In the order of a session's life: made, joined, left, commands, engine thread, events, frames,
// reports, recovery.
#include "rec_engine/RecordingEngineImpl.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/clocks.h"
#include "base/log.h"
#include "base/log_file.h"
#include "base/pipe_router.h"
#include "base/safe_log.h"
#include "rec_engine/config_file.h"

namespace zelta::recording {

using base::ERROR_LOG;
using base::INFO_LOG;
using base::log_config;
using base::NOTICE_LOG;
using base::WARN_LOG;
using base::ZELTA_LOG_MODULE_RECORDING_ENGINE;

namespace {

// A line that is streamed together: ENGINE_LOG(NOTICE_LOG) << "uid: " << uid;
#define ENGINE_LOG(level)                                                                         \
  base::safe_log(logdir_.c_str(), __FILE__, __LINE__, (level), ZELTA_LOG_MODULE_RECORDING_ENGINE) \
      .stream()
// A line with a format: ENGINE_LOGF(NOTICE_LOG, "%s", text);
#define ENGINE_LOGF(level, format, ...)                                      \
  base::log_dir(logdir_.c_str(), (level), ZELTA_LOG_MODULE_RECORDING_ENGINE, \
                "(%d) %s:%d: " format, getpid(), __FILE__, __LINE__, ##__VA_ARGS__)

constexpr const char* kServiceName = "ZeltaCoreService";
constexpr const char* kRevision = ZELTA_REVISION;

constexpr int kTimerIntervalMs = 500;
constexpr uint32_t kTicksPerReport = 4;
constexpr uint32_t kTicksPerStatistics = 20;

// What the public calls refuse with.
constexpr int kRefused = -1;
constexpr int kBadConfiguration = -2;

constexpr int kMaxPort = 65535;
constexpr int kMinPortSpan = 2;
constexpr size_t kMaxChannelIdBytes = 64;
constexpr int kMinIdleSec = 2;
constexpr int kMaxTooShortChunkSec = 9;
constexpr mode_t kFolderMode = 0777;

constexpr int kRecoveriesPerEngine = 3;
// Bits of a poll result that a new recorder can mend. A descriptor that isn't open (POLLNVAL) is a
// fault of ours, which it can't.
constexpr int kRecoverableEvents = 0x0008 | 0x0010 | 0x2000;
static_assert(kRecoverableEvents == (POLLERR | POLLHUP | POLLRDHUP));
constexpr int32_t kFinalLeaveReasons =
    LEAVE_CODE_SIG | LEAVE_CODE_NO_USERS | LEAVE_CODE_TIMER_CATCH;

bool is_set(const char* text) {
  return text != nullptr && *text != '\0';
}

std::string with_slash(std::string folder) {
  if (!folder.empty() && folder.back() != '/') folder += '/';
  return folder;
}

// Addresses are logged to tell the objects of one log apart; their low half does.
unsigned address_of(const void* object) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(object));
}

// The modes that take pictures instead of recording video.
bool captures_instead_of_video(VIDEO_FORMAT_TYPE decode_video) {
  return decode_video == VIDEO_FORMAT_JPG_FRAME_TYPE || decode_video == VIDEO_FORMAT_JPG_FILE_TYPE;
}

bool captures(VIDEO_FORMAT_TYPE decode_video) {
  return captures_instead_of_video(decode_video) ||
         decode_video == VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE;
}

int to_int(const std::string& digits) {
  return static_cast<int>(std::strtol(digits.c_str(), nullptr, 10));
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

const uint8_t* bytes_of(const std::string& payload) {
  return reinterpret_cast<const uint8_t*>(payload.data());
}

uint32_t size_of(const std::string& payload) {
  return static_cast<uint32_t>(payload.size());
}

}  // namespace

// No exception crosses the public interface: memory or a thread that is not to be had refuses the
// call. What was begun by then ends with the engine.
template <class Call>
int guarded(const char* name, const std::string& logdir, Call call) {
  try {
    return call();
  } catch (const std::exception& failure) {
    base::log_dir(logdir.c_str(), ERROR_LOG, ZELTA_LOG_MODULE_RECORDING_ENGINE, "%s failed: %s",
                  name, failure.what());
    return kRefused;
  }
}

uint64_t get_ns() {
  std::timespec now{};
  return clock_gettime(CLOCK_MONOTONIC, &now) == 0 ? static_cast<uint64_t>(now.tv_nsec) : 0;
}

// ---- Made ----------------------------------------------------------------------------------

IRecordingEngine* IRecordingEngine::createZeltaRecordingEngine(
    const char* appId, IRecordingEngineEventHandler* eventHandler) {
  // There is no engine yet, so these go to the process's default log.
  const auto refuse = [](int line, const char* why) {
    base::log(ERROR_LOG, ZELTA_LOG_MODULE_RECORDING_ENGINE, "(%d) %s:%d: %s", getpid(), __FILE__,
              line, why);
  };
  if (!is_set(appId)) return refuse(__LINE__, "app id is empty"), nullptr;
  if (eventHandler == nullptr) return refuse(__LINE__, "event handler is empty"), nullptr;
  // A recorder that dies while we write to it must not take the application with it.
  std::signal(SIGPIPE, SIG_IGN);
  IRecordingEngine* made = nullptr;
  guarded("createZeltaRecordingEngine", "", [&] {
    auto router = std::make_unique<base::pipe_router>(true);
    // The engine is its own owner: release() ends it.
    made = std::make_unique<RecordingEngineImpl>(appId, eventHandler, router.get()).release();
    static_cast<void>(router.release());
    return 0;
  });
  return made;
}

RecordingEngineImpl::RecordingEngineImpl(const char* appId, IRecordingEngineEventHandler* handler,
                                         base::router* r)
    : m_handler(handler), m_appId(appId != nullptr ? appId : ""), router_(r) {
  if (router_) router_->register_listener(this);
  ENGINE_LOGF(NOTICE_LOG, "A recorder instance created: %x", address_of(this));
}

RecordingEngineImpl::~RecordingEngineImpl() {
  ENGINE_LOGF(NOTICE_LOG, "Recorder %x is ready to be release", address_of(this));
  std::free(properties_.storageDir);  // NOLINT: made by malloc, as the public type promises
  properties_.storageDir = nullptr;
  counters_.clear();
  for (auto& peer : peers_) peer.second.reset();
  if (router_) {
    router_->shutdown();
    router_.reset();
  }
  if (timer_ != nullptr) {
    loop_.remove_timer(timer_);
    timer_ = nullptr;
    ENGINE_LOG(NOTICE_LOG) << "Recording wrapper delete timer";
  }
  // A server may make a thousand short recordings a minute.
  base::log_file_close(logdir_);
}

int RecordingEngineImpl::release() {
  IRecordingEngine* const engine = this;
  engine->leaveChannel();
  const std::unique_ptr<IRecordingEngine> last(engine);
  return 0;
}

const RecordingEngineProperties* RecordingEngineImpl::getProperties() {
  return &properties_;
}

// ---- Joined: the checks --------------------------------------------------------------------

int RecordingEngineImpl::joinChannel(const char* channelKey, const char* channelId, uid_t uid,
                                     const RecordingConfig& config) {
  return guarded("joinChannel", logdir_, [&] {
    const int refused = joinChannelValidationCheck(channelKey, channelId, uid, &config);
    if (refused != 0) return refused;
    config_ = config;
    std::vector<const char*> args;
    std::string program = kServiceName;
    const int failed = pushParamsToZRS(channelKey, channelId, uid, &config, args, program);
    if (failed != 0) {
      ENGINE_LOG(NOTICE_LOG) << "joinChannel"
                             << " failed to pushParamsToZRS";
      return failed;
    }
    // Over a thread that is still joinable this ends the process: two sessions can't share an
    // engine, and the first one's recorder would be lost without a word.
    thread_ = std::thread([this] { run_internal(); });
    joined_ = true;
    thread_started_ = true;
    return 0;
  });
}

// The first rule that fails decides; rules that take a value from the file keep it even when a
// later one refuses.
int RecordingEngineImpl::joinChannelValidationCheck(const char* /*channelKey*/,
                                                    const char* channelId, uid_t /*uid*/,
                                                    const RecordingConfig* config) {
  int refused = refuse_or_warn_media(*config);
  if (refused == 0) refused = refuse_mixing(*config);
  if (refused == 0) refused = refuse_channel(channelId, *config);
  if (refused == 0) refused = refuse_capture(*config);
  if (refused == 0) refused = refuse_file_settings(*config);
  return refused;
}

#define REFUSE_IF(condition, code, message) \
  do {                                      \
    if (condition) {                        \
      ENGINE_LOG(ERROR_LOG) << message;     \
      return code;                          \
    }                                       \
  } while (false)

int RecordingEngineImpl::refuse_or_warn_media(const RecordingConfig& config) {
  const int low = config.lowUdpPort;
  const int high = config.highUdpPort;
  const bool delivers_audio = config.decodeAudio != AUDIO_FORMAT_DEFAULT_TYPE;
  const bool delivers_video = config.decodeVideo != VIDEO_FORMAT_DEFAULT_TYPE;

  // Only the lower bound is checked from above: a high bound past the last port restricts nothing.
  REFUSE_IF(low < 0 || high < 0 || low > kMaxPort, kBadConfiguration,
            "Invalid port range! [" << low << ", " << high << ")");
  REFUSE_IF(config.isVideoOnly && config.isAudioOnly, kBadConfiguration,
            "Can't apply both isAudioOnly & isVideoOnly at same time.");
  // The recorder doesn't open the upper bound itself, so three ports need a difference of three.
  REFUSE_IF(low != 0 && high != 0 && high - low <= kMinPortSpan, kBadConfiguration,
            "Udp port range should contain at least 3 ports: [" << low << ", " << high << ")");
  REFUSE_IF(config.isMixingEnabled && delivers_audio, kBadConfiguration,
            "ERROR:raw audio data feature wasn't supported in mix mode !!!");
  REFUSE_IF(config.isMixingEnabled && delivers_video &&
                config.decodeVideo != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE,
            kBadConfiguration, "ERROR:raw video data feature wasn't supported in mix mode !!!");
  REFUSE_IF(delivers_audio && (config.isVideoOnly || captures_instead_of_video(config.decodeVideo)),
            kBadConfiguration,
            "ERROR:decodeAudio feature wasn't supported with videoOnly & capture mode !!!");
  REFUSE_IF(config.isAudioOnly && delivers_video, kBadConfiguration,
            "ERROR:audioOnly doesn't supported with decodeVideo!!!");
  return 0;
}

int RecordingEngineImpl::refuse_mixing(const RecordingConfig& config) {
  REFUSE_IF(!config.isMixingEnabled && config.audioProfile != AUDIO_PROFILE_DEFAULT,
            kBadConfiguration,
            "ERROR: audio profile can be set only in case isMixingEnables is true!!!");
  if (config.mixResolution != nullptr) {
    if (!config.isMixingEnabled || config.isAudioOnly) {
      // Harmless, in spite of its prefix: nothing is mixed that could have a resolution.
      ENGINE_LOG(ERROR_LOG) << "ERROR:mixResolution only be enabled in video mix mode!!!";
    } else {
      int high_width = 0;
      int high_height = 0;
      int fps = 0;
      int kbps = 0;
      const int read =
          std::sscanf(config.mixResolution, "%d,%d,%d,%d", &high_width, &high_height, &fps, &kbps);
      if (read < 4 || high_width <= 0 || high_height <= 0 || fps <= 0 || kbps <= 0) {
        ENGINE_LOGF(ERROR_LOG, "Illegal resolution: %s", config.mixResolution);
        return kRefused;
      }
    }
  }
  REFUSE_IF(config.mixedVideoAudio != MIXED_AV_DEFAULT &&
                (!config.isMixingEnabled || config.isAudioOnly || config.isVideoOnly),
            kRefused, "ERROR:mixedVideoAudio only be enabled in video mix mode!!!");
  return 0;
}

int RecordingEngineImpl::refuse_channel(const char* channelId, const RecordingConfig& config) {
  REFUSE_IF(!is_set(channelId), kBadConfiguration, "channel id is empty");
  REFUSE_IF(std::strlen(channelId) > kMaxChannelIdBytes, kBadConfiguration,
            "The length of channel id should not be more than 64");
  REFUSE_IF(config.idleLimitSec <= kMinIdleSec, kBadConfiguration,
            "Idle limit should be more than 2 seconds");
  return 0;
}

// The flags that a capture mode overrides are only warned about: the command line is made right.
int RecordingEngineImpl::refuse_capture(const RecordingConfig& config) {
  if (!captures(config.decodeVideo)) return 0;
  if (config.decodeVideo != VIDEO_FORMAT_JPG_VIDEO_FILE_TYPE && !config.isVideoOnly) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isVideoOnly = 1";
  }
  // Audio only together with any video format has been refused already; this stands guard should
  // that rule ever be loosened.
  if (config.isAudioOnly) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isAudioOnly = 0";
  }
  if (config.isMixingEnabled) {
    ENGINE_LOG(ERROR_LOG) << "Video capture mode must be set isMixingEnabled = 0";
  }
  REFUSE_IF(config.captureInterval < 1, kBadConfiguration, "Illegal video capture interval.");
  return 0;
}

int RecordingEngineImpl::refuse_file_settings(const RecordingConfig& config) {
  if (is_set(config.cfgFilePath)) {
    const std::string type = get_internal_val_from_cfg(config.cfgFilePath, "Avsync_Type");
    if (!type.empty()) avsync_type_ = static_cast<base::avsyncType>(to_int(type));
  }
  REFUSE_IF(static_cast<uint32_t>(config.triggerMode) > 1, kBadConfiguration,
            "triggerMode out of range, it should be 0 or 1");
  if (is_set(config.cfgFilePath)) {
    const int refused = refuse_chunk_span(config);
    if (refused != 0) return refused;
  }
  REFUSE_IF(config.audioIndicationInterval < 0, kBadConfiguration,
            "audioIndicationInterval out of range, it should be 0 more");
  return 0;
}

int RecordingEngineImpl::refuse_chunk_span(const RecordingConfig& config) {
  const std::string text = get_val_from_cfg(config.cfgFilePath, "Chunk_Time_Span");
  const int span = to_int(text);
  config_.chunkTimeSpan = span;
  REFUSE_IF(span > 0 && config.isMixingEnabled, kBadConfiguration,
            "we can't generate chunk file under mix mode");
  REFUSE_IF(span > 0 && config.channelProfile == CHANNEL_PROFILE_COMMUNICATION, kBadConfiguration,
            "we can only generate chunk file under broadcasting mode");
  REFUSE_IF(span < 0 || (span > 0 && span <= kMaxTooShortChunkSec), kBadConfiguration,
            "chunk time span should be more than 10s");
  return 0;
}

#undef REFUSE_IF

// ---- Joined: the configuration file --------------------------------------------------------

std::string RecordingEngineImpl::get_val_from_cfg(const char* cfgFile, const char* key) {
  const text_lookup found = look_up_text(cfgFile, key);
  switch (found.status) {
    case lookup_status::kFound:
      break;
    case lookup_status::kCannotOpen:
      ENGINE_LOG(ERROR_LOG) << "ERROR:failed to open config file";
      break;
    case lookup_status::kCannotParse:
      ENGINE_LOG(ERROR_LOG) << "ERROR:failed to parser config file";
      break;
    case lookup_status::kNoKey:
      ENGINE_LOG(ERROR_LOG) << "ERROR:config file does not contain recording";
      break;
  }
  return found.value;
}

// For keys that hardly any file has: their absence is not worth a line.
std::string RecordingEngineImpl::get_internal_val_from_cfg(const char* cfgFile, const char* key) {
  return look_up_text(cfgFile, key).value;
}

uint32_t RecordingEngineImpl::get_uint_val_from_cfg(const char* cfgFile, const char* key) {
  return look_up_uint(cfgFile, key);
}

int RecordingEngineImpl::get_internal_test_cfg(const RecordingConfig* config, std::string& vocs,
                                               uint32_t& vocsPort, std::string& vos,
                                               uint32_t& vosPort) {
  if (config == nullptr) return kRefused;
  const char* const path = config->cfgFilePath;
  if (!is_set(path)) return 0;
  vocs = get_internal_val_from_cfg(path, "vocs");
  vocsPort = get_uint_val_from_cfg(path, "vocs_port");
  vos = get_internal_val_from_cfg(path, "vos");
  vosPort = get_uint_val_from_cfg(path, "vos_port");
  return 0;
}

// ---- Joined: the folder --------------------------------------------------------------------

int RecordingEngineImpl::setup_recording_folder(const RecordingConfig* config,
                                                std::string& recordPath) {
  if (config == nullptr) return kRefused;
  if (is_set(config->cfgFilePath)) {
    const std::string path = with_slash(get_val_from_cfg(config->cfgFilePath, "Recording_Dir"));
    if (!path.empty()) {
      if (!exists(path) && mkdir(path.c_str(), kFolderMode) < 0) {
        ENGINE_LOG(ERROR_LOG) << "Failed to create the recording folder in config file";
        return kRefused;
      }
      recordPath = path;
      return 0;
    }
    ENGINE_LOG(INFO_LOG) << "recording path is empty in cfg file";
  }
  ENGINE_LOG(INFO_LOG) << "using recordFileRootDir";
  if (is_set(config->recordFileRootDir)) recordPath = config->recordFileRootDir;
  set_record_folder(recordPath, channelId_);
  return 0;
}

// A folder that can't be made is not reported here: the recorder, which writes into it, says so.
void RecordingEngineImpl::set_record_folder(std::string& path, std::string& channelId) {
  const char* const root = std::getenv("ZELTA_FILE_ROOT");
  if (root != nullptr && path.empty()) path = root;
  path = with_slash(path);
  // Whatever the root came from: it is the one that files are looked for under.
  ENGINE_LOGF(NOTICE_LOG, "ZELTA_FILE_ROOT = %s", path.c_str());
  const auto make = [&path] {
    if (!exists(path)) static_cast<void>(mkdir(path.c_str(), kFolderMode));
  };
  char text[20];
  const std::time_t now = std::time(nullptr);
  std::tm calendar{};
  gmtime_r(&now, &calendar);
  std::strftime(text, sizeof text, "%Y%m%d/", &calendar);
  path += text;
  make();
  base::Time2UTCStrWithSlash_ns(text, sizeof text);
  path += channelId + "_" + text;
  make();
}

// ---- Joined: the command line --------------------------------------------------------------

// Collects option pairs; owns the values, which must live until the recorder was launched.
struct RecordingEngineImpl::command_line {
  struct option {
    bool present;
    const char* name;
    std::string value;
  };

  void add(std::initializer_list<option> options) {
    for (const option& o : options) {
      if (!o.present) continue;
      args.push_back(o.name);
      args.push_back(values.emplace_back(o.value).c_str());
    }
  }
  static std::string text(const char* value) { return value != nullptr ? value : ""; }

  std::vector<const char*>& args;
  std::deque<std::string> values;
};

int RecordingEngineImpl::pushParamsToZRS(const char* channelKey, const char* channelId, uid_t uid,
                                         const RecordingConfig* pConfig,
                                         std::vector<const char*>& args, std::string& program) {
  command_line line{args, {}};
  if (is_set(pConfig->appliteDir)) program = with_slash(pConfig->appliteDir) + program;
  args.push_back(program.c_str());
  add_session_options(line, channelKey, channelId, uid, *pConfig);
  add_media_options(line, *pConfig);

  std::string folder = ".";
  int failed = setup_recording_folder(pConfig, folder);
  if (failed != 0) return failed;
  read_log_modules(*pConfig);
  line.add({{true, "--recording_file_dir", folder}});
  logdir_ = folder;
  if (router_) router_->set_logdir(folder);

  failed = add_server_options(line, *pConfig);
  if (failed == 0) failed = publish_folder(folder);
  if (failed != 0) return failed;
  add_late_options(line, *pConfig);
  failed = pushParamsToZRSEx(pConfig, args);
  if (failed != 0) return failed;

  loop_.logdir_ = logdir_;
  ENGINE_LOGF(NOTICE_LOG, "[Wrapper version] %s", kRevision);
  ENGINE_LOGF(NOTICE_LOG, "=======params ======");
  // The secret too: a recording that can't be decrypted is only understood with the whole line at
  // hand, and the folder is as private as the recording in it.
  for (const char* entry : args) ENGINE_LOGF(NOTICE_LOG, "%s", entry);
  args.push_back(nullptr);

  if (pConfig->triggerMode == AUTOMATICALLY_MODE) isSessionActive_ = true;
  backup_args(args);
  return router_ ? router_->launch_recorder(args, &loop_) : kRefused;
}

void RecordingEngineImpl::add_session_options(command_line& line, const char* channelKey,
                                              const char* channelId, uid_t uid,
                                              const RecordingConfig& config) {
  channelId_ = channelId;
  const bool capture = captures_instead_of_video(config.decodeVideo);
  const bool encrypted = config.decryptionMode != nullptr && config.secret != nullptr;
  line.add({
      {!m_appId.empty(), "--app_id", m_appId},
      // A channel without keys is opened by the app id.
      {true, "--channel_key", is_set(channelKey) ? channelKey : m_appId},
      {true, "--channel_id", channelId},
      {uid != 0, "--uid", std::to_string(uid)},
      // Taking pictures is work on video alone, whatever else was asked for.
      {config.isAudioOnly && !capture, "--audio_only", "1"},
      {config.isVideoOnly || capture, "--video_only", "1"},
      {config.isMixingEnabled && !capture, "--mix", "1"},
      {true, "--mixedVideoAudio", std::to_string(config.mixedVideoAudio)},
      {config.channelProfile == CHANNEL_PROFILE_LIVE_BROADCASTING, "--live", "1"},
      {encrypted, "--encrypt_mode", command_line::text(config.decryptionMode)},
      {encrypted, "--encrypt_secret", command_line::text(config.secret)},
  });
}

void RecordingEngineImpl::add_media_options(command_line& line, const RecordingConfig& config) {
  line.add({
      {true, "--chunk_time_span", std::to_string(config_.chunkTimeSpan)},
      {true, "--idle", std::to_string(config.idleLimitSec)},
      {true, "--decode_audio", std::to_string(config.decodeAudio)},
      {true, "--decode_video", std::to_string(config.decodeVideo)},
      {true, "--capture_interval", std::to_string(config.captureInterval)},
      {true, "--audio_indication_interval", std::to_string(config.audioIndicationInterval)},
      {true, "--syslog_fclt", std::to_string(log_config::facility.load())},
      {true, "--streamType", std::to_string(config.streamType)},
      {true, "--serviceMode", std::to_string(service_mode_)},
  });
}

// The only ports that are JSON numbers are passed on as signed, like every other number.
int RecordingEngineImpl::add_server_options(command_line& line, const RecordingConfig& config) {
  std::string vocs;
  uint32_t vocs_port = 0;
  std::string vos;
  uint32_t vos_port = 0;
  const int failed = get_internal_test_cfg(&config, vocs, vocs_port, vos, vos_port);
  if (failed != 0) return failed;
  line.add({
      {!vocs.empty(), "--vocs", vocs},
      {vocs_port != 0, "--vocs_port", std::to_string(static_cast<int>(vocs_port))},
      {!vos.empty(), "--vos", vos},
      {vos_port != 0, "--vos_port", std::to_string(static_cast<int>(vos_port))},
  });
  return 0;
}

void RecordingEngineImpl::add_late_options(command_line& line, const RecordingConfig& config) {
  uint32_t level = 0;
  uint32_t modules = 0;
  {
    const log_config::config_lock guard(log_config::logger_mutex);
    level = log_config::enabled_level;
    modules = log_config::enabled_modules;
  }
  const bool mixes_video = config.isMixingEnabled && !config.isAudioOnly;
  line.add({
      {mixes_video && config.mixResolution != nullptr, "--mix_resolution",
       command_line::text(config.mixResolution)},
      {config.lowUdpPort != 0, "--min_port", std::to_string(config.lowUdpPort)},
      {config.highUdpPort != 0, "--max_port", std::to_string(config.highUdpPort)},
      {config.triggerMode != AUTOMATICALLY_MODE, "--triggerMode",
       std::to_string(config.triggerMode)},
      {true, "--lang", std::to_string(config.lang)},
      {config.proxyServer != nullptr, "--proxy_server", command_line::text(config.proxyServer)},
      {true, "--audioProfile", std::to_string(config.audioProfile)},
      {is_set(config.defaultVideoBg), "--defaultVideoBg",
       command_line::text(config.defaultVideoBg)},
      {is_set(config.defaultUserBg), "--defaultUserBg", command_line::text(config.defaultUserBg)},
      {true, "--logLevel", std::to_string(static_cast<int>(level))},
      // All modules are passed as -1.
      {true, "--enabledModules", std::to_string(static_cast<int>(modules))},
      {true, "--avSyncType", std::to_string(avsync_type_)},
  });
}

// An empty path is asked as well, and logs that it can't be opened: unlike the other keys this one
// has always been looked for whenever a path was given.
void RecordingEngineImpl::read_log_modules(const RecordingConfig& config) {
  if (config.cfgFilePath == nullptr) return;
  const std::string modules = get_val_from_cfg(config.cfgFilePath, "Log_Module");
  const log_config::config_lock guard(log_config::logger_mutex);
  if (modules.empty()) {
    log_config::enabled_modules = base::ZELTA_LOG_MODULE_ANY;
  } else {
    log_config::enabled_modules |= static_cast<uint32_t>(std::strtol(modules.c_str(), nullptr, 10));
  }
}

int RecordingEngineImpl::publish_folder(const std::string& folder) {
  auto* const copy =
      static_cast<char*>(std::calloc(folder.length() + 1, 1));  // NOLINT: public type
  if (copy == nullptr) {
    ENGINE_LOG(ERROR_LOG) << "there's no memory to malloc";
    return kRefused;
  }
  folder.copy(copy, folder.length());
  earlier_storage_dirs_.emplace_back(properties_.storageDir);
  properties_.storageDir = copy;
  return 0;
}

int RecordingEngineImpl::pushParamsToZRSEx(const RecordingConfig* /*config*/,
                                           std::vector<const char*>& /*args*/) {
  return 0;
}

// Appends: a second join's command line stands behind the first one's.
int RecordingEngineImpl::backup_args(std::vector<const char*>& args) {
  for (const char* entry : args) {
    if (entry == nullptr) break;
    args_str_.emplace_back(entry);
  }
  // Descriptors of a link that will be gone by the time of a relaunch.
  for (const char* const name : {"--write", "--read"}) {
    const auto found = std::find(args_str_.begin(), args_str_.end(), name);
    const auto pair = std::min<std::ptrdiff_t>(2, std::distance(found, args_str_.end()));
    args_str_.erase(found, found + pair);
  }
  for (const std::string& entry : args_str_) args_.push_back(entry.c_str());
  args_.push_back(nullptr);
  return 0;
}

// ---- Left ----------------------------------------------------------------------------------

bool RecordingEngineImpl::in_engine_thread() const {
  return engine_thread_runs_ && pthread_equal(pthread_self(), engine_thread_) != 0;
}

int RecordingEngineImpl::leaveChannel() {
  return guarded("leaveChannel", logdir_, [&] {
    {
      const std::lock_guard<std::mutex> guard(recovery_.lock);
      recovery_.flag |= RECOVERY_FLAG_LEFT;
    }
    IRecordingEngine* const engine = this;
    engine->stoppedOnError();
    if (in_engine_thread() || stopped_) return 0;
    {
      const std::lock_guard<base::Mutexer> guard(stopped_mutex_);
      if (stopped_) return 0;
      stopped_ = true;
    }
    joined_ = false;
    isSessionActive_ = false;
    // Asked a second time on purpose: joining the thread that we are on would never return.
    if (in_engine_thread()) {
      ENGINE_LOG(NOTICE_LOG) << "API call to leave channel in event loop thread";
      return leave_channel();
    }
    ENGINE_LOG(NOTICE_LOG) << "API call to leave channel not in event loop thread";
    if (thread_started_ && thread_.joinable()) {
      // Its next tick sees stopped_, tells the recorder and stops the loop.
      thread_.join();
      thread_started_ = false;
      return 0;
    }
    end_thread_from_inside();
    return 0;
  });
}

int RecordingEngineImpl::leave_channel() {
  send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
  end_thread_from_inside();
  return 0;
}

void RecordingEngineImpl::end_thread_from_inside() {
  loop_.stop();
  if (!thread_started_) return;
  thread_.detach();
  thread_started_ = false;
}

int RecordingEngineImpl::stoppedOnError() {
  return guarded("stoppedOnError", logdir_, [&] {
    if (!in_engine_thread()) {
      ENGINE_LOG(INFO_LOG) << "API call to stopped on error not in event loop thread";
      return 0;
    }
    ENGINE_LOG(INFO_LOG) << "API call to stopped on error in event loop thread";
    send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
    loop_.stop();
    return 0;
  });
}

// ---- Commands ------------------------------------------------------------------------------

// Every packet is made here: the router takes it over, so it is the one thing that is released.
template <class Packet, class Fill>
void RecordingEngineImpl::send(Fill fill) {
  if (!router_) return;
  auto p = std::make_unique<Packet>(uint16_t{0});
  fill(*p);
  router_->send_packet(p.release());
}

bool RecordingEngineImpl::may_toggle_service() const {
  return joined_ && config_.triggerMode != AUTOMATICALLY_MODE;
}

int RecordingEngineImpl::startService() {
  return guarded("startService", logdir_, [&] {
    if (!may_toggle_service()) {
      ENGINE_LOG(ERROR_LOG) << "failed to start service, joined channel: " << joined_.load()
                            << " trigger mode: " << config_.triggerMode;
      return kRefused;
    }
    if (isSessionActive_) {
      ENGINE_LOG(ERROR_LOG) << "engine has already started service";
      return kRefused;
    }
    isSessionActive_ = true;
    ENGINE_LOG(NOTICE_LOG) << "User trigger start service";
    send<protocol::start_service_packet>([](auto& p) { p.uid = 0; });
    return 0;
  });
}

int RecordingEngineImpl::stopService() {
  return guarded("stopService", logdir_, [&] {
    if (!may_toggle_service()) {
      ENGINE_LOG(ERROR_LOG) << "failed to stop service, joined channel: " << joined_.load()
                            << " trigger mode: " << config_.triggerMode;
      return kRefused;
    }
    if (!isSessionActive_) {
      ENGINE_LOG(ERROR_LOG) << "engine hasn't started service yet ";
      return kRefused;
    }
    isSessionActive_ = false;
    ENGINE_LOG(NOTICE_LOG) << "User trigger stop service";
    send<protocol::stop_service_packet>([](auto& p) { p.uid = 0; });
    return 0;
  });
}

int RecordingEngineImpl::setLogLevel(zelta_log_level level) {
  return guarded("setLogLevel", logdir_, [&] {
    ENGINE_LOG(NOTICE_LOG) << "setLogLevel"
                           << " , set log level to : " << static_cast<int>(level);
    // The public levels have the internal numbers.
    log_config::set_log_level(static_cast<base::log_levels>(level));
    send<protocol::set_log_level_packet>(
        [level](auto& p) { p.level = static_cast<uint32_t>(level); });
    return 0;
  });
}

int RecordingEngineImpl::enableModuleLog(uint32_t module, bool enable) {
  return guarded("enableModuleLog", logdir_, [&] {
    ENGINE_LOG(NOTICE_LOG) << "enableModuleLog"
                           << " , enable " << enable << " log for module :" << module;
    if (enable) {
      log_config::enable_module(module);
    } else {
      log_config::disable_module(module);
    }
    send<protocol::log_enable_module_packet>([module, enable](auto& p) {
      p.module = module;
      p.enable = enable ? 1 : 0;
    });
    return 0;
  });
}

int RecordingEngineImpl::setUserBackground(uid_t uid, const char* imagePath) {
  return guarded("setUserBackground", logdir_, [&] {
    const char* const path = imagePath != nullptr ? imagePath : "";
    ENGINE_LOG(NOTICE_LOG) << "setUserBackground"
                           << " : uid :" << uid << " ,path :" << path;
    send<protocol::set_user_background_packet>([uid, path](auto& p) {
      p.uid = uid;
      p.img_path = path;
    });
    return 0;
  });
}

int RecordingEngineImpl::setVideoMixingLayout(const VideoMixingLayout& layout) {
  return guarded("setVideoMixingLayout", logdir_, [&] { return _setVideoMixingLayout(layout); });
}

int RecordingEngineImpl::_setVideoMixingLayout(const VideoMixingLayout& layout) {
  std::vector<unsigned char> bytes;
  if (!encodeMixingLayout(layout, bytes, logdir_)) return kBadConfiguration;
  if (!router_) return 0;
  ENGINE_LOG(NOTICE_LOG) << "write_packet: encodedlayout size: " << bytes.size();
  send<protocol::video_mixing_layout_packet>([&bytes](auto& p) { p.data = bytes; });
  return 0;
}

int RecordingEngineImpl::setParameters(const char* parameters) {
  return guarded("setParameters", logdir_, [&] {
    send<protocol::parameters_packet>(
        [parameters](auto& p) { p.parameters = parameters != nullptr ? parameters : ""; });
    return 0;
  });
}

// ---- Engine thread -------------------------------------------------------------------------

int RecordingEngineImpl::run_internal() {
  engine_thread_ = pthread_self();
  engine_thread_runs_ = true;
  timer_ = loop_.add_timer(kTimerIntervalMs, &RecordingEngineImpl::timer_callback, this);
  const int result = loop_.run(false);
  engine_thread_runs_ = false;
  return result;
}

void RecordingEngineImpl::timer_callback(int /*fd*/, void* context) {
  static_cast<RecordingEngineImpl*>(context)->on_timer();
}

void RecordingEngineImpl::on_timer() {
  ++loopCnt_;
  if (loopCnt_ % kTicksPerStatistics == 0) {
    // The elder frame packets and pictures are counted and left out: no recorder of ours sends the
    // former, and pictures come too seldom to tell anything.
    ENGINE_LOG(INFO_LOG) << "[Wrapper] channel id: " << channelId_
                         << " packet stats, total: " << stats_.totalPackets
                         << ", callback_->AudioFrameReceived: pcmPackets: " << stats_.pcmPackets
                         << ", pcmTotalPackets: " << stats_.pcmTotalPackets
                         << ", aacPackets: " << stats_.aacPackets
                         << ", yuvF2Packets: " << stats_.yuvF2Packets
                         << ", h264F2Packets: " << stats_.h264F2Packets
                         << ", errPackets: " << stats_.errPackets
                         << ", otherPackets: " << stats_.otherPackets;
    stats_.clean();
  }
  if (loopCnt_ % kTicksPerReport == 0) report_counts();
  if (stopped_) {
    send<protocol::leave_packet>([](auto& p) { p.reason = 0; });
    loop_.stop();
  }
}

// ---- Events --------------------------------------------------------------------------------

void RecordingEngineImpl::on_user_joined(uint32_t uid, const std::string& info) {
  auto& counters = peers_[uid];
  // A user whom a new recorder reports again goes on with the old counts.
  if (!counters) counters = std::make_unique<mediaFrameCnt>();
  counters_[uid] = counters.get();
  if (m_handler != nullptr) {
    UserJoinInfos infos;
    infos.storageDir = info.c_str();
    m_handler->onUserJoined(uid, infos);
  }
  send<protocol::user_join_confirm_packet>([uid](auto& p) { p.uid = uid; });
}

void RecordingEngineImpl::on_user_dropped(uint32_t uid) {
  counters_.erase(uid);
  peers_.erase(uid);
  if (m_handler != nullptr) m_handler->onUserOffline(uid, USER_OFFLINE_QUIT);
  send<protocol::user_drop_confirm_packet>([uid](auto& p) { p.uid = uid; });
}

void RecordingEngineImpl::on_join_channel_success(uint32_t uid, const char* channel_id) {
  {
    const std::lock_guard<std::mutex> guard(recovery_.lock);
    recovery_.flag |= RECOVERY_FLAG_JOINED;
  }
  joined_ = true;
  if (m_handler != nullptr) m_handler->onJoinChannelSuccess(channel_id, uid);
}

void RecordingEngineImpl::on_recorder_error(int32_t error, uint32_t stat_code) {
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) m_handler->onError(error, static_cast<STAT_CODE_TYPE>(stat_code));
}

void RecordingEngineImpl::on_active_speaker(uint32_t uid) {
  if (m_handler != nullptr) m_handler->onActiveSpeaker(uid);
}

void RecordingEngineImpl::on_audio_volume_indication(const std::vector<unsigned int>& uids,
                                                     const std::vector<unsigned int>& volumes) {
  if (uids.empty() || volumes.empty() || m_handler == nullptr) return;
  std::vector<AudioVolumeInfo> speakers(uids.size());
  for (size_t i = 0; i < uids.size(); ++i) {
    speakers[i].uid = uids[i];
    speakers[i].volume = volumes[i];
  }
  m_handler->onAudioVolumeIndication(speakers.data(), static_cast<unsigned int>(speakers.size()));
}

void RecordingEngineImpl::on_first_video_decoded(uint32_t uid, int width, int height, int elapsed) {
  if (m_handler != nullptr) m_handler->onFirstRemoteVideoDecoded(uid, width, height, elapsed);
}

void RecordingEngineImpl::on_first_audio_frame(uint32_t uid, int elapsed) {
  if (m_handler != nullptr) m_handler->onFirstRemoteAudioFrame(uid, elapsed);
}

void RecordingEngineImpl::on_receiving_stream_status_changed(int audio, int video) {
  if (m_handler != nullptr) m_handler->onReceivingStreamStatusChanged(audio != 0, video != 0);
}

void RecordingEngineImpl::on_connection_interrupted() {
  if (m_handler != nullptr) m_handler->onConnectionInterrupted();
}

void RecordingEngineImpl::on_connection_lost() {
  if (m_handler != nullptr) m_handler->onConnectionLost();
}

// Applications set backgrounds; that a recorder shows one is no news to them.
void RecordingEngineImpl::on_set_user_background(uint32_t /*uid*/,
                                                 const std::string& /*img_path*/) {}

// ---- Frames --------------------------------------------------------------------------------
//
// The public frames are locals whose pointers go into the packet's payload: nothing is copied. Only
// what current recorders send is counted: pcm_frame, jpg_frame and the "2" video frames.

RecordingEngineImpl::mediaFrameCnt* RecordingEngineImpl::counters_of(uint32_t uid) {
  const auto peer = counters_.find(uid);
  return peer != counters_.end() ? peer->second : nullptr;
}

void RecordingEngineImpl::on_audio_frame(const protocol::pcm_frame& packet) {
  // Ten milliseconds at 16 kHz, until the payload tells.
  constexpr uint_t kNominalSamples = 160;
  AudioPcmFrame pcm(packet.frame_ms, packet.sample_rates, kNominalSamples);
  pcm.channels_ = packet.channels;
  pcm.sample_bits_ = packet.bits;
  pcm.pcmBuf_ = bytes_of(packet.data);
  pcm.pcmBufSize_ = size_of(packet.data);
  // Samples are of 16 bits, and those of all channels are counted together.
  pcm.samples_ = static_cast<uint_t>(packet.data.size() >> 1);
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->pcmCnt;
  if (m_handler == nullptr) return;
  AudioFrame frame;
  frame.type = AUDIO_FRAME_RAW_PCM;
  frame.frame.pcm = &pcm;
  m_handler->audioFrameReceived(packet.uid, &frame);
}

void RecordingEngineImpl::on_audio_frame(const protocol::aac_frame& packet) {
  AudioAacFrame aac(packet.frame_ms);
  aac.aacBuf_ = bytes_of(packet.data);
  aac.aacBufSize_ = size_of(packet.data);
  aac.channels_ = packet.channels;
  aac.bitrate_ = packet.bitrate;
  if (m_handler == nullptr) return;
  AudioFrame frame;
  frame.type = AUDIO_FRAME_AAC;
  frame.frame.aac = &aac;
  m_handler->audioFrameReceived(packet.uid, &frame);
}

template <class Frame>
void RecordingEngineImpl::deliver_yuv(const Frame& packet, int rotation) {
  VideoYuvFrame yuv(packet.frame_ms, packet.width, packet.height, packet.ystride, packet.ustride,
                    packet.vstride);
  yuv.buf_ = bytes_of(packet.data);
  yuv.bufSize_ = size_of(packet.data);
  // The U plane has half the rows of the picture; where V starts doesn't depend on V's stride.
  yuv.ybuf_ = yuv.buf_;
  const uint_t y_bytes = yuv.ystride_ * yuv.height_;
  const uint_t u_bytes = (yuv.ustride_ * yuv.height_) >> 1;
  yuv.ubuf_ = yuv.ybuf_ + y_bytes;
  yuv.vbuf_ = yuv.ybuf_ + (y_bytes + u_bytes);
  if (m_handler == nullptr) return;
  VideoFrame frame;
  frame.type = VIDEO_FRAME_RAW_YUV;
  frame.frame.yuv = &yuv;
  frame.rotation_ = rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

template <class Frame>
void RecordingEngineImpl::deliver_h264(const Frame& packet, int rotation) {
  if (m_handler == nullptr) return;
  VideoH264Frame h264;
  h264.frame_ms_ = packet.frame_ms;
  h264.frame_num_ = packet.frame_num;
  h264.buf_ = bytes_of(packet.data);
  h264.bufSize_ = size_of(packet.data);
  VideoFrame frame;
  frame.type = VIDEO_FRAME_H264;
  frame.frame.h264 = &h264;
  frame.rotation_ = rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

void RecordingEngineImpl::on_video_frame(const protocol::yuv_frame& packet) {
  deliver_yuv(packet, 0);
}

void RecordingEngineImpl::on_video_frame(const protocol::h264_frame& packet) {
  deliver_h264(packet, 0);
}

void RecordingEngineImpl::on_video_frame(const protocol::yuv_frame2& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->yuvCnt;
  deliver_yuv(packet, packet.rotation);
}

void RecordingEngineImpl::on_video_frame(const protocol::h264_frame2& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->h264Cnt;
  deliver_h264(packet, packet.rotation);
}

void RecordingEngineImpl::on_video_frame(const protocol::jpg_frame& packet) {
  if (mediaFrameCnt* const counters = counters_of(packet.uid)) ++counters->jpgCnt;
  if (m_handler == nullptr) return;
  VideoJpgFrame jpg;
  jpg.frame_ms_ = packet.frame_ms;
  jpg.buf_ = bytes_of(packet.data);
  jpg.bufSize_ = size_of(packet.data);
  VideoFrame frame;
  frame.type = VIDEO_FRAME_JPG;
  frame.frame.jpg = &jpg;
  frame.rotation_ = packet.rotation;
  m_handler->videoFrameReceived(packet.uid, &frame);
}

// ---- Reports -------------------------------------------------------------------------------

void RecordingEngineImpl::report_counts() {
  const bool audio = config_.decodeAudio != AUDIO_FORMAT_DEFAULT_TYPE;
  const bool video = config_.decodeVideo != VIDEO_FORMAT_DEFAULT_TYPE;
  if (audio && video) {
    report_media_count();
  } else if (video) {
    report_video_count();
  } else if (audio) {
    report_audio_count();
  }
}

// `fill` gets the packet, a uid and its counters, once a user and in ascending order of uids.
template <class Packet, class Fill>
void RecordingEngineImpl::report(Fill fill) {
  if (peers_.empty()) return;
  send<Packet>([this, &fill](Packet& p) {
    std::apply([this](auto&... vectors) { (vectors.reserve(peers_.size()), ...); },
               Packet::fields(p));
    for (const auto& [uid, counters] : peers_) fill(p, uid, *counters);
  });
}

void RecordingEngineImpl::report_media_count() {
  report<protocol::media_frame_confirm_packet>([](auto& p, uint32_t uid, const auto& counters) {
    p.uids.push_back(uid);
    p.pcmCnts.push_back(counters.pcmCnt);
    p.yuvCnts.push_back(counters.yuvCnt);
    p.h264Cnts.push_back(counters.h264Cnt);
    p.jpgCnts.push_back(counters.jpgCnt);
  });
}

void RecordingEngineImpl::report_video_count() {
  report<protocol::video_frame_confirm_packet>([](auto& p, uint32_t uid, const auto& counters) {
    p.uids.push_back(uid);
    p.yuvCnts.push_back(counters.yuvCnt);
    p.h264Cnts.push_back(counters.h264Cnt);
    p.jpgCnts.push_back(counters.jpgCnt);
  });
}

void RecordingEngineImpl::report_audio_count() {
  report<protocol::audio_frame_confirm_packet>([](auto& p, uint32_t uid, const auto& counters) {
    p.uids.push_back(uid);
    p.pcmCnts.push_back(counters.pcmCnt);
  });
}

// ---- Recovery ------------------------------------------------------------------------------

bool RecordingEngineImpl::on_error(int event) {
  if (needRecovery(event) && recovery_on_error() == 0) {
    m_handler->onWarning(WARN_RECOVERY_CORE_SERVICE_FAILURE);
    return true;
  }
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) {
    // STAT_POLL_ERR and its kin have the values of the poll bits, so these are passed as they came.
    m_handler->onError(ERR_INTERNAL_FAILED, static_cast<STAT_CODE_TYPE>(event));
  }
  return true;
}

bool RecordingEngineImpl::needRecovery(int event) {
  const std::lock_guard<std::mutex> guard(recovery_.lock);
  // The flag's value is not shown: what reads these logs knows the line in this form.
  ENGINE_LOGF(INFO_LOG, "RECOVERY: needRecovery, event :%d, flag", event);
  return (event & kRecoverableEvents) != 0 && m_handler != nullptr && checkRecoveryFlag();
}

bool RecordingEngineImpl::checkRecoveryFlag() {
  const int32_t flag = recovery_.flag;
  return (flag & RECOVERY_FLAG_JOINED) != 0 &&
         (flag & (RECOVERY_FLAG_LEFT | RECOVERY_FLAG_FINAL_LEAVE)) == 0;
}

// The lock is held during the whole relaunch, so that a leave on another thread waits for the new
// recorder and then reaches it.
int RecordingEngineImpl::recovery_on_error() {
  ENGINE_LOG(WARN_LOG) << "Error occur, try to recover.";
  const std::lock_guard<std::mutex> guard(recovery_.lock);
  if (recovery_.times < 1) {
    ENGINE_LOG(WARN_LOG) << "times is 0.";
    return kRefused;
  }
  --recovery_.times;
  recovery_.recovery_stat = RECOVERY_STAT_RECOVERING;
  prepare_recovery_args();
  std::string program = "video_recorder";
  const int failed = pushStoredArgsToZRS(args_, program);
  if (failed != 0) return failed;
  recovery_.recovery_stat = RECOVERY_STAT_RECOVERED;
  if (config_.triggerMode != AUTOMATICALLY_MODE) {
    // Whether the service ran before or not: rather record too much than lose what was wanted.
    isSessionActive_ = true;
    ENGINE_LOG(NOTICE_LOG) << "recovery auto trigger start service";
    send<protocol::start_service_packet>([](auto& p) { p.uid = 0; });
  }
  return 0;
}

int RecordingEngineImpl::prepare_recovery_args() {
  args_.clear();
  const auto id = std::find(args_str_.begin(), args_str_.end(), "--recoveryid");
  if (id != args_str_.end()) {
    // The four entries of the relaunch before stand together.
    const auto time = std::find(id, args_str_.end(), "--recoverytime");
    const auto past = std::min<std::ptrdiff_t>(2, std::distance(time, args_str_.end()));
    args_str_.erase(id, time + past);
  }
  args_str_.insert(args_str_.end(),
                   {"--recoveryid", std::to_string(kRecoveriesPerEngine - recovery_.times),
                    "--recoverytime", std::to_string(base::tick_ms())});
  for (const std::string& entry : args_str_) args_.push_back(entry.c_str());
  args_.push_back(nullptr);
  return 0;
}

// Logged at a lower level than the first launch, which has shown the same options, and with the
// terminator, so that what the router was given is seen to its end.
int RecordingEngineImpl::pushStoredArgsToZRS(std::vector<const char*>& args, std::string& program) {
  loop_.logdir_ = logdir_;
  ENGINE_LOGF(INFO_LOG, "[Wrapper version] %s", kRevision);
  ENGINE_LOGF(INFO_LOG, "======recovery %s %d times ======", program.c_str(),
              kRecoveriesPerEngine - recovery_.times);
  for (const char* entry : args) ENGINE_LOGF(INFO_LOG, "%s", entry);
  return router_ ? router_->relaunch_recorder(args, &loop_) : kRefused;
}

void RecordingEngineImpl::on_leave(uint32_t reason) {
  {
    const std::lock_guard<std::mutex> guard(recovery_.lock);
    recovery_.flag |= RECOVERY_FLAG_LEFT;
    ENGINE_LOGF(INFO_LOG, "RECOVERY: on_leave");
  }
  joined_ = false;
  isSessionActive_ = false;
  if (m_handler != nullptr) m_handler->onLeaveChannel(static_cast<LEAVE_PATH_CODE>(reason));
  // Without the lock: the bit before it rules out a recovery already, so this one changes no
  // answer.
  if ((reason & static_cast<uint32_t>(kFinalLeaveReasons)) != 0) {
    recovery_.flag |= RECOVERY_FLAG_FINAL_LEAVE;
  }
}

}  // namespace zelta::recording
