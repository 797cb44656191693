#include "hls/variant_playlist.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace skerir {
namespace {

using test::LogCapture;

struct ExpectedChunk {
  uint64_t sequence;
  std::string url;
  bool is_last;
  std::string key_url;
};

std::vector<ExpectedChunk> drain(VariantPlaylist& playlist) {
  std::vector<ExpectedChunk> out;
  while (!playlist.chunks.empty()) {
    const Chunk& c = playlist.chunks.front();
    out.push_back({c.sequence, c.url, c.is_last, c.key_url});
    playlist.chunks.pop();
  }
  return out;
}

void expect_chunks(const std::vector<ExpectedChunk>& got, const std::vector<ExpectedChunk>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE("chunk #" + std::to_string(i));
    EXPECT_EQ(got[i].sequence, want[i].sequence);
    EXPECT_EQ(got[i].url, want[i].url);
    EXPECT_EQ(got[i].is_last, want[i].is_last);
    EXPECT_EQ(got[i].key_url, want[i].key_url);
  }
}

TEST(MediaPlaylistParse, NumbersSegmentsAndMarksTheEnd) {
  const struct {
    const char* name;
    std::string text;
    std::vector<ExpectedChunk> chunks;
  } cases[] = {
      {"numbered from the media sequence",
       "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:100\n#EXTINF:4,\nhttp://o/a.ts\n#EXTINF:4,\nhttp://o/"
       "b.ts\n#EXTINF:4,\nhttp://o/c.ts\n",
       {{100, "http://o/a.ts", false, ""},
        {101, "http://o/b.ts", false, ""},
        {102, "http://o/c.ts", false, ""}}},
      {"numbered from 0 without one",
       "#EXTM3U\nhttp://o/a.ts\nhttp://o/b.ts",
       {{0, "http://o/a.ts", false, ""}, {1, "http://o/b.ts", false, ""}}},
      {"a media sequence in mid-text renumbers what follows",
       "#EXTM3U\na.ts\n#EXT-X-MEDIA-SEQUENCE:7\nb.ts\n",
       {{0, "a.ts", false, ""}, {7, "b.ts", false, ""}}},
      {"the end-list tag marks only the final segment",
       "#EXTM3U\na.ts\nb.ts\n#EXT-X-ENDLIST\n",
       {{0, "a.ts", false, ""}, {1, "b.ts", true, ""}}},
      {"an end-list tag before any segment marks nothing",
       "#EXTM3U\n#EXT-X-ENDLIST\na.ts\nb.ts\n",
       {{0, "a.ts", false, ""}, {1, "b.ts", false, ""}}},
      {"an end-list tag mid-text marks the segment before it",
       "#EXTM3U\na.ts\n#EXT-X-ENDLIST\nb.ts\n",
       {{0, "a.ts", true, ""}, {1, "b.ts", false, ""}}},
      {"an empty line is a segment with an empty URL",
       "#EXTM3U\na.ts\n\nb.ts\n",
       {{0, "a.ts", false, ""}, {1, "", false, ""}, {2, "b.ts", false, ""}}},
      {"URIs are trimmed, CR line ends included",
       "#EXTM3U\r\n#EXT-X-MEDIA-SEQUENCE:5\r\n  http://o/a.ts \t\r\n",
       {{5, "http://o/a.ts", false, ""}}},
      {"tags are matched on the raw line: an indented tag is a segment URI",
       "#EXTM3U\n #EXT-X-MEDIA-SEQUENCE:5\na.ts\n",
       {{0, "#EXT-X-MEDIA-SEQUENCE:5", false, ""}, {1, "a.ts", false, ""}}},
      {"comments and unknown tags are skipped",
       "#EXTM3U\n# a comment\n#EXT-X-VERSION:3\n#EXT-X-PROGRAM-DATE-TIME:x\na.ts\n",
       {{0, "a.ts", false, ""}}},
      {"sequence numbers read as atol reads them",
       "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:  42abc\na.ts\n#EXT-X-MEDIA-SEQUENCE:x\nb.ts\n"
       "#EXT-X-MEDIA-SEQUENCE:-1\nc.ts\n#EXT-X-MEDIA-SEQUENCE:99999999999999999999999\nd.ts\n",
       {{42, "a.ts", false, ""},
        {0, "b.ts", false, ""},
        {UINT64_MAX, "c.ts", false, ""},
        {9223372036854775807ull, "d.ts", false, ""}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    VariantPlaylist playlist("http://o/v.m3u8");
    std::string text = c.text;
    EXPECT_TRUE(playlist.parse_playlist(&text));
    expect_chunks(drain(playlist), c.chunks);
  }
}

TEST(MediaPlaylistParse, KeyUrlIsTheRestOfTheLineAfterUriLessItsLastCharacter) {
  const struct {
    const char* name;
    std::string key_line;
    std::string key_url;
  } cases[] = {
      {"quoted URI as the last attribute", "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\"",
       "http://k/1"},
      {"white space around it is trimmed first", "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\" \r",
       "http://k/1"},
      {"attributes after the URI stay in, less one character",
       "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\",IV=0x01", "http://k/1\",IV=0x0"},
      {"METHOD=NONE with a URI still sets a key", "#EXT-X-KEY:METHOD=NONE,URI=\"http://k/n\"",
       "http://k/n"},
      {"without URI= the URL starts at the fifth character", "#EXT-X-KEY:METHOD=NONE",
       "-X-KEY:METHOD=NON"},
      {"URI= ending the line gives an empty URL", "#EXT-X-KEY:URI=", ""},
      {"a lone opening quote gives an empty URL", "#EXT-X-KEY:URI=\"", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture::instance().clear();
    VariantPlaylist playlist("http://o/v.m3u8");
    std::string text = "#EXTM3U\n" + c.key_line + "\na.ts\n";
    EXPECT_TRUE(playlist.parse_playlist(&text));
    expect_chunks(drain(playlist), {{0, "a.ts", false, c.key_url}});
    EXPECT_EQ(LogCapture::instance().lines(LogStream::out),
              std::vector<std::string>{"key url: " + c.key_url});
  }
}

TEST(MediaPlaylistParse, EachKeyHoldsForTheSegmentsAfterIt) {
  LogCapture::instance().clear();
  VariantPlaylist playlist("http://o/v.m3u8");
  std::string text =
      "#EXTM3U\n"
      "clear.ts\n"
      "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\"\n"
      "a.ts\n"
      "b.ts\n"
      "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/2\"\n"
      "c.ts\n";
  EXPECT_TRUE(playlist.parse_playlist(&text));
  expect_chunks(drain(playlist), {{0, "clear.ts", false, ""},
                                  {1, "a.ts", false, "http://k/1"},
                                  {2, "b.ts", false, "http://k/1"},
                                  {3, "c.ts", false, "http://k/2"}});
  EXPECT_EQ(LogCapture::instance().lines(LogStream::out),
            (std::vector<std::string>{"key url: http://k/1", "key url: http://k/2"}));
}

TEST(MediaPlaylistParse, AcceptsOnlyAnM3uFirstLine) {
  const struct {
    std::string first_line;
    bool accepted;
  } cases[] = {
      {"#EXTM3U", true},   {" \t#EXTM3U \t", true},     {"#EXTM3U\r", true},
      {"#EXTM3Ux", false}, {"#EXTM3U x", false},        {"#extm3u", false},
      {"", false},         {"#EXT-X-VERSION:3", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("first line: \"" + c.first_line + "\"");
    LogCapture::instance().clear();
    VariantPlaylist playlist("http://o/v.m3u8");
    std::string old_text = "#EXTM3U\nold.ts\n";
    ASSERT_TRUE(playlist.parse_playlist(&old_text));
    std::string text = c.first_line + "\n#EXT-X-TARGETDURATION:6\na.ts\n";
    EXPECT_EQ(playlist.parse_playlist(&text), c.accepted);
    if (c.accepted) {
      expect_chunks(drain(playlist), {{0, "a.ts", false, ""}});
      EXPECT_TRUE(LogCapture::instance().lines(LogStream::err).empty());
    } else {
      EXPECT_TRUE(playlist.chunks.empty()) << "a rejected text still clears the queue";
      EXPECT_EQ(playlist.target_duration, 1u);
      EXPECT_EQ(LogCapture::instance().lines(LogStream::err),
                std::vector<std::string>{"This is not m3u playlist!"});
    }
  }
}

TEST(MediaPlaylistParse, EachParseReplacesTheQueueButKeepsAnUnsetTargetDuration) {
  VariantPlaylist playlist("http://o/v.m3u8");
  EXPECT_EQ(playlist.url, "http://o/v.m3u8");
  EXPECT_EQ(playlist.target_duration, 1u);

  std::string first =
      "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:20\n"
      "#EXT-X-KEY:METHOD=AES-128,URI=\"http://k/1\"\na.ts\nb.ts\nc.ts\n";
  ASSERT_TRUE(playlist.parse_playlist(&first));
  EXPECT_EQ(playlist.target_duration, 10u);
  EXPECT_EQ(playlist.chunks.size(), 3u);

  // Fewer segments, no target duration, no key, no media sequence: nothing carries over but
  // the target duration.
  std::string second = "#EXTM3U\nd.ts\n";
  ASSERT_TRUE(playlist.parse_playlist(&second));
  EXPECT_EQ(playlist.target_duration, 10u);
  expect_chunks(drain(playlist), {{0, "d.ts", false, ""}});

  std::string third = "#EXTM3U\n#EXT-X-TARGETDURATION:4s\n";
  ASSERT_TRUE(playlist.parse_playlist(&third));
  EXPECT_EQ(playlist.target_duration, 4u);
  EXPECT_TRUE(playlist.chunks.empty());
}

}  // namespace
}  // namespace skerir
