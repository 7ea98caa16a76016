#include <atomic>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/JoiningThread.h"
#include "VellicorRepackCore/Base/NetworkRoute.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/Base/Paths.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor::testing {
namespace {

/// Texts that neither another test nor the manual page compares to the letter.
TEST(RepackError, TextsOfTheRarerErrors) {
  using E = RepackError;
  const std::vector<std::pair<E, std::string>> rows = {
      {RepackError(QuantOverrideCountMismatch{
           .expected = 30, .actual = 7, .sample = {"a", "b", "c", "d", "e", "f", "g"}}),
       R"(config.json quantization overrides: expected 30, got 7; sample=["a", "b", "c", "d", "e"])"},
      {RepackError(QuantOverrideCountMismatch{.expected = 30, .actual = 0, .sample = {}}),
       "config.json quantization overrides: expected 30, got 0; sample=[]"},
      {RepackError(RemoteHTTPResponse{.url = "u", .status = 429, .retryAfter = ""}),
       "remote HTTP 429: u, Retry-After "},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(error.what(), text);
}

TEST(NetworkRoute, IsADefaultRouteAndNoOther) {
  const auto v4 = [](const std::string& rows) {
    const std::string head =
        "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
    return fmt::format("{}", fmt::join(defaultRouteInterfacesV4(head + rows), " "));
  };
  const auto v6 = [](const std::string& rows) {
    return fmt::format("{}", fmt::join(defaultRouteInterfacesV6(rows), " "));
  };
  const std::string zeros(32, '0'), link = "fe80" + std::string(28, '0');
  const auto row6 = [&](const std::string& destination, const char* prefix, const char* flags,
                        const char* name) {
    return fmt::format("{} {} {} 00 {} 00000400 00000001 00000000 {} {:>8}\n", destination, prefix, zeros,
                       link, flags, name);
  };
  const std::string unreachable = row6(zeros, "00", "00200200", "lo");
  const std::string docker = "docker0\t000011AC\t00000000\t0001\t0\t0\t0\t0000FFFF\t0\t0\t0  \n";
  const std::string selfGiven = "virbr0\t0000FEA9\t00000000\t0001\t0\t0\t1000\t0000FFFF\t0\t0\t0\n";
  const std::string gateway = "eth0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0  \n";
  const std::string vpn = "tun0\t00000000\t00000000\t0001\t0\t0\t50\t00000000\t0\t0\t0\n";
  const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
      {"nothing", v4(""), ""},
      {"bridges and self-given addresses", v4(docker + selfGiven), ""},
      {"a gateway and a VPN", v4(docker + gateway + vpn), "eth0 tun0"},
      {"half of everything", v4("tun0\t00000000\t0100080A\t0003\t0\t0\t0\t00000080\t0\t0\t0\n"), ""},
      {"not up", v4("eth0\t00000000\t010200C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"), ""},
      {"unreachable", v4("*\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n"), ""},
      {"black hole", v4("*\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n"), ""},
      {"cut short", v4("eth0\t00000000\t010200C0\t0003\t0\t0\t0"), ""},
      {"IPv6, the kernel's own", v6(unreachable + row6(link, "40", "00000001", "docker0")), ""},
      {"IPv6, unreachable elsewhere", v6(row6(zeros, "00", "00000201", "eth0")), ""},
      {"IPv6 only", v6(unreachable + row6(zeros, "00", "00450003", "wlan0") + unreachable), "wlan0"},
  };
  for (const auto& [name, found, expected] : rows) EXPECT_EQ(found, expected) << name;
}

TEST(Sha256Stream, GivesThePublishedDigests) {
  EXPECT_EQ(hashData(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hashData("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
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
  CancellationSource source;
  EXPECT_NO_THROW(sleepUnlessCancelled(std::chrono::nanoseconds(1), source.token()));
  const JoiningThread canceller([&] { source.cancel(); });
  EXPECT_EQ(errorText([&] { sleepUnlessCancelled(std::chrono::hours(1), source.token()); }), "cancelled");
  EXPECT_EQ(errorText([&] { throwIfCancelled(source.token()); }), "cancelled");
}

TEST(Paths, AreStandardizedLexically) {
  const std::string here = fs::current_path().string();
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"/a/../..", "/"},        {"/a//b/", "/a/b"}, {"/a/./b/../c", "/a/c"},
      {"/..a/...", "/..a/..."}, {"", here},         {"x/.", here + "/x"}};
  for (const auto& [path, expected] : rows) EXPECT_EQ(standardizedPath(path), expected) << path;
}

TEST(OrderedWork, ShowsTheFirstFailureInOrderAndNothingBehindIt) {
  constexpr std::size_t count = 50, failing = 40, blocking = 35;
  for (const std::size_t workers : {1U, 2U, 8U, 99U}) {
    std::vector<int> done(count);
    std::atomic<bool> isAlone = true;
    std::binary_semaphore laterFailed(0);
    const auto caller = std::this_thread::get_id();
    OrderedWork work(count, workers, {}, [&](std::size_t item, const CancellationToken&) {
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
  OrderedWork work(count, 2, {}, [&](std::size_t item, const CancellationToken&) {
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
      CancellationSource source;
      std::atomic<int> begun = 0, ended = 0;
      const auto waitForStop = [&](std::size_t item, const CancellationToken& stop) {
        ++begun;
        const std::string text = item == 0 ? "no error" : errorText([&] {
          if (isCancelled) source.cancel();
          sleepUnlessCancelled(std::chrono::hours(1), stop);
        });
        ++ended;
        if (text != "no error") throw CancellationError();
      };
      {
        OrderedWork work(20, workers, source.token(), waitForStop);
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
      OrderedWork late(20, workers, source.token(), waitForStop);
      EXPECT_EQ(errorText([&] { late.next(); }), "cancelled");
      EXPECT_EQ(begun, 0);
    }
  }
}

}  // namespace
}  // namespace vellicor::testing
