// SPDX-License-Identifier: LGPL-3.0-or-later
// The data file in chunks: events, messages and images do not depend on where a chunk ends.

#include "permissions/import/document.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "permissions/import/data_pass.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

// --- a file in memory, and standard error as text
// -------------------------------------------------

Fd file_of(const std::string& text) {
  Fd file(memfd_create("document", MFD_CLOEXEC));
  EXPECT_EQ(static_cast<ssize_t>(text.size()), pwrite(file.get(), text.data(), text.size(), 0));
  return file;
}

class StandardError {
 public:
  StandardError() : saved_(dup(STDERR_FILENO)), text_(memfd_create("stderr", MFD_CLOEXEC)) {
    dup2(text_.get(), STDERR_FILENO);
  }
  ~StandardError() { dup2(saved_.get(), STDERR_FILENO); }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

  // The text since the last call.
  std::string take() {
    std::string text(static_cast<std::size_t>(lseek(text_.get(), 0, SEEK_END)), '\0');
    EXPECT_EQ(static_cast<ssize_t>(text.size()), pread(text_.get(), text.data(), text.size(), 0));
    EXPECT_EQ(0, ftruncate(text_.get(), 0));
    lseek(text_.get(), 0, SEEK_SET);
    return text;
  }

 private:
  Fd saved_;
  Fd text_;
};

// --- the events of a document, and one that cancels ----------------------------------------------

std::string events;
int events_left = 0;  // the event that makes it zero cancels; below zero none does

int note(const char* kind, const void* text = nullptr, std::size_t length = 0) {
  events += kind;
  events.append(static_cast<const char*>(text), length);
  events += '|';
  return --events_left == 0 ? 0 : 1;
}
constexpr yajl_callbacks kNotes{
    .yajl_null = [](void*) { return note("null"); },
    .yajl_boolean = [](void*, int value) { return note(value != 0 ? "true" : "false"); },
    .yajl_integer = nullptr,
    .yajl_double = nullptr,
    .yajl_number = [](void*, const char* text,
                      std::size_t length) { return note("number ", text, length); },
    .yajl_string = [](void*, const unsigned char* text,
                      std::size_t length) { return note("string ", text, length); },
    .yajl_start_map = [](void*) { return note("{"); },
    .yajl_map_key = [](void*, const unsigned char* text,
                       std::size_t length) { return note("key ", text, length); },
    .yajl_end_map = [](void*) { return note("}"); },
    .yajl_start_array = [](void*) { return note("["); },
    .yajl_end_array = [](void*) { return note("]"); },
};

struct Heard {
  std::string events;
  std::string said;
  bool operator==(const Heard&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Heard& heard) {
  return out << heard.events << "\n" << heard.said;
}

class DocumentInChunks : public testing::Test {
 protected:
  Heard in_chunks(const std::string& text, std::size_t chunk, int cancel_at = -1) {
    const Fd file = file_of(text);
    events.clear();
    events_left = cancel_at;
    EXPECT_TRUE(parse_document(file.get(), text.size(), kNotes, chunk));
    return {events, error_.take()};
  }

  // The same document as one block of memory, with the messages that the parser itself makes.
  Heard at_once(const std::string& text, int cancel_at = -1) {
    events.clear();
    events_left = cancel_at;
    std::string said = text.empty() ? "error on file read.\n" : "";
    yajl_handle parser = yajl_alloc(&kNotes, nullptr, nullptr);
    yajl_config(parser, yajl_allow_comments, 1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    bool is_accepted = true;
    if (!text.empty()) is_accepted = yajl_parse(parser, bytes, text.size()) == yajl_status_ok;
    if (!is_accepted) said += message_of(parser, bytes, text.size());
    const bool is_complete = yajl_complete_parse(parser) == yajl_status_ok;
    if (is_accepted && !is_complete) said += message_of(parser, bytes, 0);
    yajl_free(parser);
    return {events, said};
  }

  void expect_the_same(const std::string& text, std::initializer_list<std::size_t> chunks,
                       int cancel_at = -1) {
    const Heard expected = at_once(text, cancel_at);
    for (const std::size_t chunk : chunks) {
      ASSERT_EQ(expected, in_chunks(text, chunk, cancel_at))
          << "chunks of " << chunk << " bytes of " << text;
    }
  }

 private:
  static std::string message_of(yajl_handle parser, const unsigned char* text, std::size_t length) {
    unsigned char* message = yajl_get_error(parser, 1, text, length);
    std::string copy = reinterpret_cast<const char*>(message);
    yajl_free_error(parser, message);
    return copy;
  }

  StandardError error_;
};

// Every kind of token, two-byte and three-byte characters, escapes, comments, line ends.
const std::string kDocument =
    "[{\"NUMCHILDREN\": 12}, // a \xC3\xA4 comment\r\n"
    "{\"DIR\":\"\xE2\x82\xAC\\u00e4\\\"x\",\n /* two */ "
    "\"n\":[-1.5e+10,true,false,null,0]}]";

TEST_F(DocumentInChunks, GivesTheSameEvents) {
  expect_the_same(kDocument, {1, 2, 3, 7, 29, 30, 31, 64, 4096, kDocumentChunk});
  EXPECT_EQ("", in_chunks(kDocument, 7).said);
}

TEST_F(DocumentInChunks, CutAnywhereIsTheSame) {
  for (std::size_t length = 0; length < kDocument.size(); ++length) {
    expect_the_same(kDocument.substr(0, length), {1, 2, 7, 30, kDocumentChunk});
  }
}

TEST_F(DocumentInChunks, SpoiltAnywhereSaysTheSame) {
  for (const char wrong : {',', '}', '"', '\\', '\n', '\0', '\xFF', '\xC3', '/', 'u'}) {
    for (std::size_t at = 0; at < kDocument.size(); ++at) {
      std::string text = kDocument;
      text[at] = wrong;
      expect_the_same(text, {1, 2, 7, 29, 30, 31, 64});
    }
  }
}

TEST_F(DocumentInChunks, CancelledAnywhereSaysTheSame) {
  for (int nth = 1; nth < 20; ++nth) expect_the_same(kDocument, {1, 2, 7, 30, 31, 64}, nth);
}

TEST_F(DocumentInChunks, WithTextBehindItsEndSaysTheSame) {
  for (const char* behind : {" ", "x", " ]", "\0x", "{}", "tr", "\"", "//", "/* ", "\n\n 1 2"}) {
    expect_the_same(kDocument + behind, {1, 2, 7, 30, kDocument.size(), kDocument.size() + 1});
  }
}

TEST_F(DocumentInChunks, EndsOnABorderOrBesideIt) {
  for (const std::size_t less : {1U, 0U}) {
    for (const std::string& end : {std::string("]"), std::string("]]"), std::string()}) {
      std::string text = "[" + std::string(2 * kDocumentChunk - less - 1 - end.size(), ' ') + end;
      expect_the_same(text, {4096, kDocumentChunk});
    }
  }
}

// The place of the error lies up to 35 bytes before and behind the border of two whole chunks.
TEST_F(DocumentInChunks, SaysTheSameOfAnErrorNearTheBorderOfAWholeChunk) {
  for (std::size_t at = kDocumentChunk - 35; at <= kDocumentChunk + 35; ++at) {
    std::string text = "[" + std::string(at - 1, ' ') + "], \"and then some more text to show\"";
    for (std::size_t i = 1; i < at; ++i) text[i] = i % 60 == 0 ? '\n' : ' ';
    for (std::size_t i = 1; i <= 40; ++i) text[at - i] = i % 2 == 0 ? '1' : ',';
    text[at - 41] = ' ';
    text[at - 1] = ' ';
    expect_the_same(text, {4096, kDocumentChunk});
  }
}

// --- reads
// ----------------------------------------------------------------------------------------

TEST_F(DocumentInChunks, GoesOnAfterAShortRead) {
  cut_short("read", 5);
  EXPECT_EQ(at_once(kDocument), in_chunks(kDocument, kDocumentChunk));
}

TEST_F(DocumentInChunks, GoesOnAfterASignal) {
  for (int nth = 1; nth < 5; ++nth) {
    fail_call("read", EINTR, nth, 3);
    EXPECT_EQ(at_once(kDocument), in_chunks(kDocument, 40)) << nth;
  }
}

TEST_F(DocumentInChunks, EndsAtAFailedRead) {
  fail_call("read", EIO, 2);
  const Heard heard = in_chunks(kDocument, 40);
  EXPECT_EQ(at_once(kDocument.substr(0, 40)).events, heard.events);
  EXPECT_TRUE(heard.said.starts_with("error on file read.\nparse error: premature EOF\n"))
      << heard.said;
}

TEST_F(DocumentInChunks, ShowsLessOfAnErrorWhenTheTextBehindItCannotBeRead) {
  const std::string text = "[1, ,2,3,4,5,6,7,8,9,10,11,12,13]";
  fail_call("read", EIO, 2, 9);
  EXPECT_EQ(at_once(text.substr(0, 8)).said, in_chunks(text, 8).said);
}

TEST_F(DocumentInChunks, TakesWhatTheFileHoldsWhenItIsRead) {
  const Fd file = file_of(kDocument);
  events.clear();
  EXPECT_TRUE(parse_document(file.get(), 1, kNotes));  // the file has grown
  EXPECT_EQ(at_once(kDocument).events, (in_chunks(kDocument, 7).events));
  const Fd cut = file_of(kDocument);
  events.clear();
  events_left = -1;
  run_before(
      "read", [&cut] { EXPECT_EQ(0, ftruncate(cut.get(), 40)); }, 2);
  EXPECT_TRUE(parse_document(cut.get(), kDocument.size(), kNotes, 20));
  const std::string seen = events;
  EXPECT_EQ(at_once(kDocument.substr(0, 40)).events, seen);
}

TEST_F(DocumentInChunks, NeedsMemoryForAChunk) {
  const Fd file = file_of(kDocument);
  fail_call("malloc", ENOMEM);
  events.clear();
  EXPECT_FALSE(parse_document(file.get(), kDocument.size(), kNotes));
  EXPECT_EQ("", events);
  EXPECT_EQ(0, lseek(file.get(), 0, SEEK_CUR));
}

// --- images
// ---------------------------------------------------------------------------------------

class ImageOfChunks : public Importer {
 protected:
  static std::vector<std::byte> image_in_chunks(const Folder& tree, std::size_t chunk) {
    const std::string text = data_json(tree);
    prepare(count(tree), text);
    EXPECT_EQ(SHM_MEMBE_OK, init_shmbe(summary()));
    memsummary = summary();
    const Fd file = file_of(text);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(parse_document(file.get(), text.size(), data_pass_callbacks, chunk));
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(0U, summary()->sth.totalelems);
    EXPECT_EQ(0U, element_array.used);
    return image();
  }
};

TEST_F(ImageOfChunks, IsTheImageOfTheWhole) {
  for (uint32_t seed = 1; seed <= 8; ++seed) {
    const Folder tree = random_tree(seed, 200, Bytes::kUtf8);
    const auto expected = build_image(tree);
    for (const std::size_t chunk :
         {std::size_t{1}, std::size_t{2}, std::size_t{7}, std::size_t{4096}, kDocumentChunk}) {
      ASSERT_EQ(expected, image_in_chunks(tree, chunk)) << "seed " << seed << " chunk " << chunk;
    }
  }
}

// The document is 48 MiB, most of it blanks. The import's memory grows by less than 4 MiB.
TEST_F(ImageOfChunks, NeedsNoMemoryForTheFile) {
  const Folder tree{.name = "/", .users = {{1, 7}}};
  const std::string text = data_json(tree);
  const Outcome outcome = in_child([&] {
    prepare(count(tree), text);
    {
      const Fd file(open(kData, O_WRONLY | O_APPEND | O_CLOEXEC));
      const std::string blanks(std::size_t{1} << 20, ' ');
      for (int i = 0; i < 48; ++i) ASSERT_LT(0, write(file.get(), blanks.data(), blanks.size()));
    }
    struct rusage before {};
    struct rusage after {};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(SHM_MEMBE_OK, run());
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 4096);
    EXPECT_EQ(build_image(tree), image());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out << outcome.err;
}

}  // namespace
}  // namespace tavrix::test
