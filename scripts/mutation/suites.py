# SPDX-License-Identifier: Apache-2.0
"""Which files get faults, and which suites are to notice them: the first line whose pattern fits
decides, the fastest suite comes first."""
import collections

# `shards`: cases that mostly wait run beside each other. `seconds`: processor time that it may take, many times
# what it needs.
Suite = collections.namedtuple("Suite", "name shards cpu_seconds wall_seconds filter",
                               defaults=(1, 20, 90, "*"))

SUITES = {suite.name: suite for suite in [
    Suite("base_test", 3),
    Suite("engine_test", 2),
    Suite("allocation_test"),
    # Two million packets and rounds of starts say more about machines than about single faults.
    Suite("hostile_test", 5, 30, 120),
    Suite("link_test", 8, 30, 120, "*-*RoundsLeaveNoDescriptorAndNoChild"),
    Suite("leave_test", 3, 30, 120),
    Suite("fault_test", 4, 60, 180),
    Suite("recorder_unit_test", 4, 40, 120),
    Suite("mp4_test", 3, 40, 120),
    Suite("fuzz_engine_packets"), Suite("fuzz_mixing_layout"), Suite("fuzz_config_file"),
    Suite("fuzz_control_packets"), Suite("fuzz_session_description"), Suite("fuzz_recorder_files"),
    Suite("fuzz_command_line"), Suite("fuzz_rtp_packets"), Suite("fuzz_depayload"), Suite("fuzz_format"),
    Suite("fuzz_webrtc_offer"),
    Suite("packets_to_units_test", 3, 60, 150),
    Suite("webrtc_test", 3, 40, 120),
    Suite("endpoint_test", 2, 60, 150), Suite("whip_test", 2, 60, 150), Suite("janus_test", 2, 60, 150),
    Suite("fuzz_data_channels"), Suite("fuzz_opus_packets"), Suite("fuzz_janus_messages"),
]}

COVERED_BY = [
    ("include/*", "base_test engine_test link_test"),
    ("src/base/packer.*", "base_test fuzz_engine_packets fuzz_control_packets allocation_test"),
    ("src/link/packet_*", "base_test fuzz_engine_packets allocation_test hostile_test link_test"),
    ("src/base/protocol/*", "base_test fuzz_engine_packets engine_test hostile_test link_test"),
    ("src/link/recorder_*", "base_test leave_test link_test hostile_test fault_test"),
    ("src/link/*", "base_test engine_test leave_test link_test hostile_test"),
    ("src/base/*", "base_test engine_test leave_test link_test hostile_test"),
    ("src/protocol/mixing_layout.*", "base_test fuzz_mixing_layout engine_test"),
    ("src/rec_engine/config_file.*", "engine_test fuzz_config_file"),
    ("src/rec_engine/*", "engine_test base_test allocation_test leave_test link_test hostile_test"),
    ("src/core_service/task/field.*", "recorder_unit_test fuzz_command_line fuzz_control_packets"),
    ("src/core_service/task/options.*", "recorder_unit_test fuzz_command_line"),
    ("src/core_service/task/parameters.*", "recorder_unit_test fuzz_control_packets"),
    ("src/core_service/task/settings.*", "recorder_unit_test"),
    ("src/core_service/folder/journal.*", "recorder_unit_test fuzz_recorder_files"),
    ("src/core_service/folder/manifest.*", "recorder_unit_test fuzz_recorder_files"),
    ("src/core_service/task/recording_plan.*", "recorder_unit_test"),
    ("src/core_service/folder/file_name.*", "recorder_unit_test"),
    ("src/core_service/folder/folder_share.*", "recorder_unit_test"),
    ("src/core_service/load/descriptors.*", "recorder_unit_test"),
    ("src/core_service/files/series_plan.*", "recorder_unit_test"),
    ("src/core_service/load/overload_rules.*", "recorder_unit_test"),
    ("src/core_service/session/speaker_policy.*", "recorder_unit_test"),
    ("src/core_service/rtp/session_description.*", "recorder_unit_test fuzz_session_description"),
    ("src/core_service/rtp/sdp_media.*",
     "recorder_unit_test webrtc_test fuzz_session_description fuzz_webrtc_offer"),
    ("src/core_service/webrtc/data_channels.*", "webrtc_test fuzz_data_channels"),
    ("src/core_service/webrtc/sctp_association.*", "webrtc_test fuzz_data_channels"),
    ("src/core_service/webrtc/[ept]*", "webrtc_test endpoint_test"),
    ("src/core_service/webrtc/*", "webrtc_test fuzz_webrtc_offer"),
    ("src/core_service/rtp/srtp/srtp_key.*", "packets_to_units_test"),
    ("src/core_service/rtp/depayload/*", "packets_to_units_test fuzz_depayload"),
    ("src/core_service/rtp/packet.*", "packets_to_units_test fuzz_rtp_packets"),
    ("src/core_service/rtp/re*_*", "packets_to_units_test fuzz_rtp_packets"),
    ("src/core_service/rtp/rtcp.*", "packets_to_units_test fuzz_rtp_packets"),
    ("src/core_service/channel/whip/*", "whip_test"),
    ("src/core_service/channel/janus/*", "janus_test fuzz_janus_messages"),
    ("src/core_service/media/opus_*", "packets_to_units_test fuzz_opus_packets"),
    ("src/core_service/files/*_log.*", "recorder_unit_test"),
    ("src/core_service/files/running_checksum.*", "recorder_unit_test"),
    ("src/core_service/media/volume_meter.*", "recorder_unit_test"),
    ("src/core_service/media/mp4/*", "mp4_test"),
    ("src/core_service/media/timeline.*", "recorder_unit_test"),
    ("src/core_service/media/sound_line.*", "recorder_unit_test"),
    ("src/core_service/mix/tiles.*", "recorder_unit_test"),
]
