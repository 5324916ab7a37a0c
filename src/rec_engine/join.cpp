// SPDX-License-Identifier: Apache-2.0
// A join: the recording folder, the recorder's command line, its launch.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <initializer_list>
#include <iterator>

#include <sys/stat.h>

#include "base/clocks.h"
#include "rec_engine/RecordingEngineImpl.h"
#include "rec_engine/engine_internals.h"

namespace zelta::recording {

namespace {

constexpr const char* kServiceName = "ZeltaCoreService";
constexpr mode_t kFolderMode = 0777;

std::string with_slash(std::string folder) {
  if (!folder.empty() && folder.back() != '/') folder += '/';
  return folder;
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

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

// ---- The folder ----------------------------------------------------------------------------

int RecordingEngineImpl::setup_recording_folder(const RecordingConfig* config,
                                                std::string& recordPath) {
  if (config == nullptr) return kRefused;
  if (is_set(config->cfgFilePath)) {
    const std::string path = with_slash(get_val_from_cfg(config->cfgFilePath, "Recording_Dir"));
    if (!path.empty()) {
      // Another session may make it in the same moment. The slash at the end makes a folder of
      // whatever exists; a file or a link to nothing is there for mkdir alone.
      if (!exists(path) && mkdir(path.c_str(), kFolderMode) < 0 && !exists(path)) {
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

// ---- The command line ----------------------------------------------------------------------

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

  name_channel_server(*pConfig);
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

// By the recorder's environment, and not by this process's: each engine may have a server of its
// own.
void RecordingEngineImpl::name_channel_server(const RecordingConfig& config) {
  if (!is_set(config.cfgFilePath) || !router_) return;
  const std::string server = get_internal_val_from_cfg(config.cfgFilePath, "Channel_Server");
  std::vector<std::string> variables;
  if (!server.empty()) variables.push_back("ZELTA_CHANNEL_SERVER=" + server);
  router_->set_environment(std::move(variables));
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
  const size_t program = args_str_.size();
  for (const char* entry : args) {
    if (entry == nullptr) break;
    args_str_.emplace_back(entry);
  }
  // Descriptors of a link that will be gone by the time of a relaunch. Every second entry is an
  // option's name; a channel may well be called like one.
  for (const char* const name : {"--write", "--read"}) {
    size_t at = program + 1;
    while (at < args_str_.size() && args_str_[at] != name) at += 2;
    if (at >= args_str_.size()) continue;
    const auto found = args_str_.begin() + static_cast<std::ptrdiff_t>(at);
    args_str_.erase(found, found + std::min<std::ptrdiff_t>(2, args_str_.end() - found));
  }
  for (const std::string& entry : args_str_) args_.push_back(entry.c_str());
  args_.push_back(nullptr);
  return 0;
}

}  // namespace zelta::recording
