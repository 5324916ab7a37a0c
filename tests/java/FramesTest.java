// SPDX-License-Identifier: Apache-2.0
// What frames lend: nothing changes while it is held, and all comes back, by a close or the
// collector.
import io.zelta.recording.AudioFormat;
import io.zelta.recording.AudioFrame;
import io.zelta.recording.Config;
import io.zelta.recording.DecodeAudio;
import io.zelta.recording.DecodeVideo;
import io.zelta.recording.Event;
import io.zelta.recording.Frame;
import io.zelta.recording.Recording;
import io.zelta.recording.VideoFormat;
import io.zelta.recording.VideoFrame;
import java.lang.reflect.Field;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.ReadOnlyBufferException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

final class FramesTest {
  private static final long SMALL_QUEUE = 512 << 10;
  private static final int SOME = 10;
  private static final int LATER = 60;

  private FramesTest() {}

  static void addTo(Suite suite) {
    suite.add("FrameSaysWhatItIs", FramesTest::whatItIs);
    suite.add("EncodedFrameHasNoSamplesAndNoPlanes", FramesTest::encoded);
    suite.add("HeldFrameStaysAsItIs", FramesTest::held);
    suite.add("KeptSliceHoldsWhatItIsOf", FramesTest::slice);
    suite.add("ClosedFrameIsNotRead", FramesTest::closed);
    suite.add("FrameOutlivesTheCloseOfItsRecording", FramesTest::outlives);
    suite.add("KeptBufferOfClosedFrameStaysMapped", FramesTest::mapped);
    suite.add("ForgottenFramesComeBackByTheCollector", FramesTest::forgotten);
    suite.add("HeldFramesFillTheQueueUntilTheyComeBack", FramesTest::full);
  }

  private static Config.Builder decoded(Channel channel) {
    return channel.config().decodeVideo(DecodeVideo.YUV_FRAMES).decodeAudio(DecodeAudio.PCM_FRAMES);
  }

  private static void whatItIs() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), 0)) {
      try (VideoFrame video = Channel.await(recording, VideoFrame.class)) {
        Suite.same(VideoFormat.YUV, video.format());
        Suite.check(video.width() == 160 && video.height() == 90, video);
        Suite.check(video.uid() == 1 || video.uid() == 2, video);
        ByteBuffer data = video.data();
        Suite.check(
            data.isDirect() && data.isReadOnly() && data.order() == ByteOrder.nativeOrder());
        Suite.thrown(ReadOnlyBufferException.class, () -> data.put(0, (byte) 0));
        int rows = 0;
        for (int i = 0; i < 3; ++i) {
          ByteBuffer plane = video.plane(i);
          Suite.check(plane.isDirect() && plane.isReadOnly(), i);
          Suite.same(video.stride(i) * video.rows(i), plane.capacity());
          Suite.check(video.planeWidth(i) == (i == 0 ? 160 : 80), i);
          rows += video.rows(i);
        }
        Suite.same(180, rows);
        Suite.same(video.data().get(0), video.plane(0).get(0));
        Suite.same(ByteBuffer.wrap(video.toByteArray()), data);
        Suite.thrown(IndexOutOfBoundsException.class, () -> video.plane(3));
      }
      try (AudioFrame audio = Channel.await(recording, AudioFrame.class)) {
        Suite.same(AudioFormat.PCM, audio.format());
        Suite.check(audio.sampleRate() >= 8000 && audio.channels() >= 1, audio.sampleRate());
        Suite.same(audio.data().capacity(), 2 * audio.samples().capacity());
        Suite.check(audio.samples().isDirect() && audio.toString().contains("uid="), audio);
      }
    }
  }

  private static void encoded() throws Exception {
    Config.Builder config;
    try (Channel channel = new Channel()) {
      config = channel.config().decodeVideo(DecodeVideo.H264_FRAMES);
      try (Recording recording = channel.join(config.decodeAudio(DecodeAudio.AAC_FRAMES), 0)) {
        try (VideoFrame video = Channel.await(recording, VideoFrame.class)) {
          Suite.same(VideoFormat.H264, video.format());
          // A byte-stream start code.
          Suite.check(video.data().order(ByteOrder.BIG_ENDIAN).getInt(0) == 1, video);
          Suite.thrown(IllegalStateException.class, () -> video.plane(0));
        }
        try (AudioFrame audio = Channel.await(recording, AudioFrame.class)) {
          Suite.same(AudioFormat.AAC, audio.format());
          Suite.same((byte) 0xff, audio.data().get(0));
          Suite.thrown(IllegalStateException.class, audio::samples);
        }
      }
    }
  }

  private static void held() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), 0)) {
      List<Frame> frames = new ArrayList<>();
      List<byte[]> copies = new ArrayList<>();
      while (frames.size() < SOME) {
        frames.add(Channel.await(recording, Frame.class));
        copies.add(frames.get(frames.size() - 1).toByteArray());
      }
      takeAndClose(recording, LATER);
      for (int i = 0; i < SOME; ++i) {
        Suite.check(Arrays.equals(copies.get(i), frames.get(i).toByteArray()), i);
        frames.get(i).close();
        frames.get(i).close();
      }
    }
  }

  private static void slice() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), 0)) {
      List<ByteBuffer> slices = new ArrayList<>();
      List<byte[]> copies = new ArrayList<>();
      for (int i = 0; i < SOME; ++i) {
        // The frame itself is forgotten here.
        ByteBuffer slice = Channel.await(recording, VideoFrame.class).plane(1).slice(8, 100);
        slices.add(slice);
        byte[] copy = new byte[slice.capacity()];
        slice.get(0, copy);
        copies.add(copy);
      }
      for (int i = 0; i < SOME; ++i) {
        System.gc();
        takeAndClose(recording, LATER / SOME);
      }
      for (int i = 0; i < SOME; ++i) {
        Suite.same(ByteBuffer.wrap(copies.get(i)), slices.get(i));
      }
    }
  }

  private static void closed() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), 0)) {
      VideoFrame video = Channel.await(recording, VideoFrame.class);
      video.close();
      for (Suite.Test use :
          List.<Suite.Test>of(video::data, video::toByteArray, () -> video.plane(0))) {
        Suite.check(
            Suite.thrown(IllegalStateException.class, use).getMessage().contains("was closed"));
      }
      Suite.check(video.width() == 160 && video.toString().contains("bytes="), video);
    }
  }

  private static void outlives() throws Exception {
    try (Channel channel = new Channel()) {
      VideoFrame video;
      byte[] copy;
      try (Recording recording = channel.join(decoded(channel), 0)) {
        video = Channel.await(recording, VideoFrame.class);
        copy = video.toByteArray();
      }
      Suite.check(Arrays.equals(copy, video.toByteArray()));
      // The last one: the library's recording goes with it.
      video.close();
      Suite.thrown(IllegalStateException.class, video::data);
    }
  }

  private static void mapped() throws Exception {
    try (Channel channel = new Channel()) {
      // Pictures so large that their memory is mapped for each alone, and unmapped with it.
      Path settings = channel.folder().resolve("large.json");
      Files.writeString(settings, "{\"Channel_Server\": \"test:users=1,size=1280x720,fps=15\"}");
      Config.Builder config = decoded(channel).configFile(settings);
      Path queue;
      ByteBuffer kept;
      try (Recording recording = channel.join(config, 0)) {
        queue = queueOf(recording);
        try (VideoFrame video = Channel.await(recording, VideoFrame.class)) {
          kept = video.plane(0);
        }
      }
      System.gc();
      // What it shows is anybody's; that it can be read at all is what counts.
      for (int i = 0; i < kept.capacity(); ++i) {
        kept.get(i);
      }
      Suite.check(Files.isSymbolicLink(queue), "the recording is gone");
      kept = null;
      long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
      while (Files.isSymbolicLink(queue)) {
        Suite.check(System.nanoTime() < endNs, "the recording was not released");
        System.gc();
        Thread.sleep(20);
      }
    }
  }

  /** The queue's descriptor, which is there as long as the library has the recording. */
  private static Path queueOf(Recording recording) throws Exception {
    Field handle = Recording.class.getDeclaredField("handle");
    handle.setAccessible(true);
    Field eventFd = handle.getType().getDeclaredField("eventFd");
    eventFd.setAccessible(true);
    return Path.of("/proc/self/fd", eventFd.get(handle.get(recording)).toString());
  }

  private static void forgotten() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), SMALL_QUEUE)) {
      // Three times what there is room for: they can't all have been held.
      long bytes = 0;
      while (bytes < 3 * SMALL_QUEUE) {
        bytes += Channel.await(recording, VideoFrame.class).data().capacity();
        System.gc();
      }
    }
  }

  private static void full() throws Exception {
    try (Channel channel = new Channel();
        Recording recording = channel.join(decoded(channel), SMALL_QUEUE)) {
      List<Frame> held = new ArrayList<>();
      Event.Dropped dropped = null;
      long endNs = System.nanoTime() + Channel.LIMIT.toNanos();
      while (dropped == null) {
        Suite.check(System.nanoTime() < endNs, "no frame was dropped");
        Event event = recording.nextEvent(Channel.LIMIT).orElseThrow();
        if (event instanceof Frame frame) {
          held.add(frame);
        }
        dropped = event instanceof Event.Dropped found ? found : null;
      }
      Suite.check(dropped.framesSoFar() >= dropped.videoFrames() + dropped.audioFrames(), dropped);
      Suite.check(dropped.framesSoFar() > 0 && dropped.otherEvents() == 0, dropped);
      // One that is held; all others come back without a close.
      Frame last = held.get(held.size() - 1);
      byte[] copy = last.toByteArray();
      held.clear();
      System.gc();
      // Pictures, as there may be room for sound anyhow.
      for (int i = 0; i < LATER / 2; ++i) {
        Channel.await(recording, VideoFrame.class).close();
      }
      Suite.check(Arrays.equals(copy, last.toByteArray()));
      last.close();
    }
  }

  private static void takeAndClose(Recording recording, int count) throws InterruptedException {
    for (int i = 0; i < count; ++i) {
      Channel.await(recording, Frame.class).close();
    }
  }
}
