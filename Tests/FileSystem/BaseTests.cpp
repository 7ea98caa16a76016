#include <algorithm>
#include <atomic>
#include <chrono>
#include <semaphore>
#include <stdexcept>
#include <stop_token>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor {
namespace {

using namespace testing;

/// Those that no other test compares to the letter.
TEST(RepackError, TextsOfTheRarerErrors) {
  using E = RepackError;
  const std::vector<std::pair<E, std::string>> rows = {
      {E::pwriteShort("f", 4096, 100, 5), "pwrite(f) short: expected 4096, wrote 100, errno 5"},
      {E::quantOverrideCountMismatch(30, 7, {"a", "b", "c", "d", "e", "f", "g"}),
       R"(config.json quantization overrides: expected 30, got 7; sample=["a", "b", "c", "d", "e"])"},
      {E::quantOverrideCountMismatch(30, 0, {}),
       "config.json quantization overrides: expected 30, got 0; sample=[]"},
      {E::missingTensor("t"), "expected tensor missing: t"},
      {E::sourceFingerprintRejected("f", "abc"), "source fingerprint abc for f is not in known set"},
      {E::remoteHTTPResponse("u", 429, ""), "remote HTTP 429: u, Retry-After "},
      {E::diskSpaceInsufficient("f", 10, 9), "insufficient disk space for f: required 10, available 9"},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(error.what(), text);
}

TEST(Sha256Stream, GivesThePublishedDigests) {
  EXPECT_EQ(hashData(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hashData("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(FingerprintWriter, HashesCountsAndNumbersAsLittleEndianWords) {
  FingerprintWriter writer;
  writer.append("h\u00e9");
  writer.append(std::uint64_t{0x0102030405060708});
  writer.append("");
  const std::string expected("\3\0\0\0\0\0\0\0h\xc3\xa9\x08\7\6\5\4\3\2\1\0\0\0\0\0\0\0\0", 27);
  EXPECT_EQ(writer.finalizeHexString(), hashData(expected));
}

TEST(BoundedScratch, GrowsByDoublingUpToItsLimit) {
  BoundedScratch scratch;
  EXPECT_EQ(errorText([&] { scratch.ensure(1048576); }), "resident index size 1048576 exceeds limit 1048575");
  const std::vector<std::pair<std::int64_t, std::size_t>> rows = {
      {-1, 16384},      {16384, 16384},   {20000, 32768},   {100, 32768},
      {200000, 200000}, {200001, 400000}, {800001, 800001}, {800002, 1048575}};
  for (const auto& [asked, given] : rows) {
    const std::span<std::byte> bytes = scratch.ensure(asked);
    EXPECT_EQ(bytes.size(), given) << asked;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bytes.data()) % 16384, 0U);
    EXPECT_EQ(std::ranges::count(bytes, std::byte{0}), std::ssize(bytes));
    EXPECT_EQ(scratch.largestEverBytes(), static_cast<std::int64_t>(given));
  }
}

TEST(Cancellation, EndsAWaitAtOnce) {
  std::stop_source source;
  EXPECT_NO_THROW(sleepUnlessCancelled(std::chrono::nanoseconds(1), source.get_token()));
  const std::jthread canceller([&] { source.request_stop(); });
  EXPECT_EQ(errorText([&] { sleepUnlessCancelled(std::chrono::hours(1), source.get_token()); }), "cancelled");
  EXPECT_EQ(errorText([&] { throwIfCancelled(source.get_token()); }), "cancelled");
}

TEST(OrderedWork, ShowsTheFirstFailureInOrderAndNothingBehindIt) {
  constexpr std::size_t count = 50, failing = 40, blocking = 35;
  for (const std::size_t workers : {1U, 2U, 8U, 99U}) {
    std::vector<int> done(count);
    std::atomic<bool> isAlone = true;
    std::binary_semaphore laterFailed(0);
    const auto caller = std::this_thread::get_id();
    OrderedWork work(count, workers, {}, [&](std::size_t item, const std::stop_token&) {
      if (std::this_thread::get_id() != caller) isAlone = false;
      // The later failure comes first, where there is somebody to have it.
      if (item == blocking && workers > 1) laterFailed.acquire();
      if (item == blocking + 1) laterFailed.release();
      if (item == blocking + 1 || item == failing) throw std::invalid_argument(fmt::format("item {}", item));
      ++done[item];
    });
    for (std::size_t item = 0; item <= blocking; ++item) {
      work.next();
      EXPECT_EQ(done[item], 1) << item << " of " << workers;
    }
    EXPECT_EQ(errorText([&] { work.next(); }), "item 36");
    EXPECT_EQ(isAlone, workers == 1);
  }
}

TEST(OrderedWork, GoesAheadOfALongItemWithinItsBound) {
  constexpr std::size_t count = 100, ahead = 2 * OrderedWork::lookAheadPerWorker;
  std::counting_semaphore<count> begun(0), firstMayEnd(0);
  std::atomic<std::size_t> handedOver = 0, beyond = 0;
  OrderedWork work(count, 2, {}, [&](std::size_t item, const std::stop_token&) {
    if (item >= handedOver + ahead) ++beyond;
    begun.release();
    if (item == 0) firstMayEnd.acquire();
  });
  for (std::size_t i = 0; i < ahead; ++i) begun.acquire();
  firstMayEnd.release();
  while (handedOver < count) {
    ++handedOver;
    work.next();
  }
  EXPECT_EQ(beyond, 0U);
}

TEST(OrderedWork, EndsWithWhoeverStopsIt) {
  for (const bool isCancelled : {true, false}) {
    for (const std::size_t workers : {1U, 3U}) {
      std::stop_source source;
      std::atomic<int> begun = 0, ended = 0;
      const auto waitForStop = [&](std::size_t item, const std::stop_token& stop) {
        ++begun;
        const std::string text = item == 0 ? "no error" : errorText([&] {
          if (isCancelled) source.request_stop();
          sleepUnlessCancelled(std::chrono::hours(1), stop);
        });
        ++ended;
        if (text != "no error") throw CancellationError();
      };
      {
        OrderedWork work(20, workers, source.get_token(), waitForStop);
        if (isCancelled) {
          EXPECT_EQ(errorText([&] {
                      while (true) work.next();
                    }),
                    "cancelled");
        } else {
          work.next();
        }
      }
      EXPECT_EQ(begun, ended);
      EXPECT_LE(begun, 4);
      if (!isCancelled) continue;
      begun = 0;
      OrderedWork late(20, workers, source.get_token(), waitForStop);
      EXPECT_EQ(errorText([&] { late.next(); }), "cancelled");
      EXPECT_EQ(begun, 0);
    }
  }
}

}  // namespace
}  // namespace vellicor
