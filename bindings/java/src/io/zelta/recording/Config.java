// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

import java.nio.file.Path;
import java.time.Duration;
import java.util.Objects;

/**
 * What to record and how. A join checks it: what can't be used is an {@link ArgumentException}
 * there, which names the value as the C header does, and what doesn't go together a {@link
 * ConfigurationException}.
 */
public final class Config {
  private static final int LANGUAGE_JAVA = 1;

  /** In the order of the members of the C struct, as are the texts. */
  private final int[] numbers;

  private final byte[] texts;

  private Config(Builder from) {
    numbers =
        new int[] {
          from.audioOnly ? 1 : 0,
          from.videoOnly ? 1 : 0,
          from.mixing ? 1 : 0,
          from.mixedFile.value(),
          from.decodeVideo.value(),
          from.decodeAudio.value(),
          from.lowUdpPort,
          from.highUdpPort,
          seconds("idleLimit", from.idleLimit),
          seconds("captureInterval", from.captureInterval),
          milliseconds("volumeInterval", from.volumeInterval),
          from.channelProfile.value(),
          from.streamType.value(),
          from.triggerMode.value(),
          LANGUAGE_JAVA,
          from.audioProfile.value()
        };
    texts =
        new Texts()
            .add("mixResolution", from.mixResolution)
            .add("decryptionMode", from.decryptionMode)
            .add("secret", from.secret)
            .add("serviceFolder", from.serviceFolder)
            .add("recordingsFolder", from.recordingsFolder)
            .add("configFile", from.configFile)
            .add("proxyServer", from.proxyServer)
            .add("backgroundImage", from.backgroundImage)
            .add("userImage", from.userImage)
            .bytes();
  }

  /**
   * Begins a configuration that records every user in files of their own.
   *
   * @return a builder with all defaults
   */
  public static Builder builder() {
    return new Builder();
  }

  int[] numbers() {
    return numbers;
  }

  byte[] texts() {
    return texts;
  }

  private static int seconds(String name, Duration time) {
    return whole(name, time, Duration.ofSeconds(1), "seconds");
  }

  private static int milliseconds(String name, Duration time) {
    return whole(name, time, Duration.ofMillis(1), "milliseconds");
  }

  private static int whole(String name, Duration time, Duration unit, String units) {
    long count = time.dividedBy(unit);
    if (!unit.multipliedBy(count).equals(time) || count != (int) count) {
      throw new IllegalArgumentException(name + " is " + time + ", it should be whole " + units
          + ", " + Integer.MAX_VALUE + " at most");
    }
    return (int) count;
  }

  /** Collects a configuration; every setting has a default. For one thread at a time. */
  public static final class Builder {
    private boolean audioOnly;
    private boolean videoOnly;
    private boolean mixing;
    private MixedFile mixedFile = MixedFile.APART;
    private DecodeVideo decodeVideo = DecodeVideo.FILES;
    private DecodeAudio decodeAudio = DecodeAudio.FILES;
    private int lowUdpPort;
    private int highUdpPort;
    private Duration idleLimit = Duration.ZERO;
    private Duration captureInterval = Duration.ZERO;
    private Duration volumeInterval = Duration.ZERO;
    private ChannelProfile channelProfile = ChannelProfile.COMMUNICATION;
    private StreamType streamType = StreamType.HIGH;
    private TriggerMode triggerMode = TriggerMode.AUTOMATIC;
    private AudioProfile audioProfile = AudioProfile.MONO;
    private String mixResolution = "";
    private String decryptionMode = "";
    private String secret = "";
    private String serviceFolder = "";
    private String recordingsFolder = "";
    private String configFile = "";
    private String proxyServer = "";
    private String backgroundImage = "";
    private String userImage = "";

    private Builder() {}

    /**
     * Records sound alone. Not together with {@link #videoOnly}.
     *
     * @param audioOnly whether to
     * @return this builder
     */
    public Builder audioOnly(boolean audioOnly) {
      this.audioOnly = audioOnly;
      return this;
    }

    /**
     * Records pictures alone.
     *
     * @param videoOnly whether to
     * @return this builder
     */
    public Builder videoOnly(boolean videoOnly) {
      this.videoOnly = videoOnly;
      return this;
    }

    /**
     * Records one stream of all users in place of one each.
     *
     * @param mixing whether to
     * @return this builder
     */
    public Builder mixing(boolean mixing) {
      this.mixing = mixing;
      return this;
    }

    /**
     * Says whether mixed sound and picture share a file; needs {@link #mixing}, and both.
     *
     * @param mixedFile whether they do
     * @return this builder
     */
    public Builder mixedFile(MixedFile mixedFile) {
      this.mixedFile = Objects.requireNonNull(mixedFile, "mixedFile");
      return this;
    }

    /**
     * Says what is done with video.
     *
     * @param decodeVideo files, frames or both
     * @return this builder
     */
    public Builder decodeVideo(DecodeVideo decodeVideo) {
      this.decodeVideo = Objects.requireNonNull(decodeVideo, "decodeVideo");
      return this;
    }

    /**
     * Says what is done with audio.
     *
     * @param decodeAudio files or frames
     * @return this builder
     */
    public Builder decodeAudio(DecodeAudio decodeAudio) {
      this.decodeAudio = Objects.requireNonNull(decodeAudio, "decodeAudio");
      return this;
    }

    /**
     * The lowest UDP port that the recorder may use.
     *
     * @param lowUdpPort 0 to 65535; 0: not restricted
     * @return this builder
     */
    public Builder lowUdpPort(int lowUdpPort) {
      this.lowUdpPort = lowUdpPort;
      return this;
    }

    /**
     * The highest UDP port that the recorder may use.
     *
     * @param highUdpPort at least the lowest and 3; 0: not restricted
     * @return this builder
     */
    public Builder highUdpPort(int highUdpPort) {
      this.highUdpPort = highUdpPort;
      return this;
    }

    /**
     * After how long without users the recorder leaves.
     *
     * @param idleLimit whole seconds, at least 3; zero: 300 s
     * @return this builder
     */
    public Builder idleLimit(Duration idleLimit) {
      this.idleLimit = Objects.requireNonNull(idleLimit, "idleLimit");
      return this;
    }

    /**
     * How often a JPEG is made.
     *
     * @param captureInterval whole seconds, at least 1; zero: 5 s
     * @return this builder
     */
    public Builder captureInterval(Duration captureInterval) {
      this.captureInterval = Objects.requireNonNull(captureInterval, "captureInterval");
      return this;
    }

    /**
     * How often {@link Event.Volumes} comes.
     *
     * @param volumeInterval whole milliseconds; zero: never
     * @return this builder
     */
    public Builder volumeInterval(Duration volumeInterval) {
      this.volumeInterval = Objects.requireNonNull(volumeInterval, "volumeInterval");
      return this;
    }

    /**
     * Says what kind of channel it is.
     *
     * @param channelProfile the kind
     * @return this builder
     */
    public Builder channelProfile(ChannelProfile channelProfile) {
      this.channelProfile = Objects.requireNonNull(channelProfile, "channelProfile");
      return this;
    }

    /**
     * Says which of a user's pictures is recorded.
     *
     * @param streamType the large or the small one
     * @return this builder
     */
    public Builder streamType(StreamType streamType) {
      this.streamType = Objects.requireNonNull(streamType, "streamType");
      return this;
    }

    /**
     * Says what starts the recording.
     *
     * @param triggerMode the join, or a call
     * @return this builder
     */
    public Builder triggerMode(TriggerMode triggerMode) {
      this.triggerMode = Objects.requireNonNull(triggerMode, "triggerMode");
      return this;
    }

    /**
     * Says how mixed sound is encoded; needs {@link #mixing}.
     *
     * @param audioProfile the bit rate
     * @return this builder
     */
    public Builder audioProfile(AudioProfile audioProfile) {
      this.audioProfile = Objects.requireNonNull(audioProfile, "audioProfile");
      return this;
    }

    /**
     * The size of the mixed picture.
     *
     * @param mixResolution {@code "width,height,fps,kbps"}
     * @return this builder
     */
    public Builder mixResolution(String mixResolution) {
      this.mixResolution = Objects.requireNonNull(mixResolution, "mixResolution");
      return this;
    }

    /**
     * How the channel's media is encrypted; needs {@link #secret}.
     *
     * @param decryptionMode as in docs/channels.md
     * @return this builder
     */
    public Builder decryptionMode(String decryptionMode) {
      this.decryptionMode = Objects.requireNonNull(decryptionMode, "decryptionMode");
      return this;
    }

    /**
     * The key of {@link #decryptionMode}.
     *
     * @param secret as in docs/channels.md
     * @return this builder
     */
    public Builder secret(String secret) {
      this.secret = Objects.requireNonNull(secret, "secret");
      return this;
    }

    /**
     * Where the recorder, ZeltaCoreService, is.
     *
     * @param serviceFolder its folder; when not called: where the library looks by itself
     * @return this builder
     */
    public Builder serviceFolder(Path serviceFolder) {
      this.serviceFolder = Objects.requireNonNull(serviceFolder, "serviceFolder").toString();
      return this;
    }

    /**
     * Under which folder that of the recording is made.
     *
     * @param recordingsFolder an existing one; when not called: the current one
     * @return this builder
     */
    public Builder recordingsFolder(Path recordingsFolder) {
      this.recordingsFolder =
          Objects.requireNonNull(recordingsFolder, "recordingsFolder").toString();
      return this;
    }

    /**
     * A JSON file with more settings, as the channel server.
     *
     * @param configFile as in docs/configuration.md
     * @return this builder
     */
    public Builder configFile(Path configFile) {
      this.configFile = Objects.requireNonNull(configFile, "configFile").toString();
      return this;
    }

    /**
     * A proxy server; passed on.
     *
     * @param proxyServer its address
     * @return this builder
     */
    public Builder proxyServer(String proxyServer) {
      this.proxyServer = Objects.requireNonNull(proxyServer, "proxyServer");
      return this;
    }

    /**
     * What is seen behind the users of the mixed picture.
     *
     * @param backgroundImage a PNG or JPEG file
     * @return this builder
     */
    public Builder backgroundImage(Path backgroundImage) {
      this.backgroundImage = Objects.requireNonNull(backgroundImage, "backgroundImage").toString();
      return this;
    }

    /**
     * What is seen in place of a user without video in the mixed picture.
     *
     * @param userImage a PNG or JPEG file
     * @return this builder
     */
    public Builder userImage(Path userImage) {
      this.userImage = Objects.requireNonNull(userImage, "userImage").toString();
      return this;
    }

    /**
     * Makes the configuration; the builder may be used on.
     *
     * @return what was collected
     * @throws IllegalArgumentException where a time isn't whole, or a text has a null character
     */
    public Config build() {
      return new Config(this);
    }
  }
}
