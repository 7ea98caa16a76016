#include "Tests/Support/Expect.h"
#include "VellicorProgress/Advice.h"
#include "VellicorProgress/ProgressLineReader.h"
#include "VellicorProgress/ProgressMeter.h"
#include "VellicorProgress/Screen.h"
#include "VellicorProgress/Viewer.h"
#include "VellicorTerminal/TerminalText.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::seconds;

const ProgressTime start = ProgressTime() + seconds(1000);

const std::string metadataLine = "PROGRESS {\"phase\":\"metadata\"}\n";

/// What a reader hands on: events as "<index>", other text as it is.
std::string shown(const std::vector<ProgressLineReader::Piece>& pieces) {
  std::string text;
  for (const auto& piece : pieces) {
    const auto* event = std::get_if<ModelInstallProgress>(&piece);
    text += event ? fmt::format("<{}>", event->index()) : std::get<std::string>(piece);
  }
  return text;
}

TEST(ProgressLineReader, TellsEventsFromOtherText) {
  using namespace std::string_literals;
  const std::string untouched = "\0\xFF\r\033[2J\nPROGRESS \0\n"s + " " + metadataLine;
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"a\nPROG\n" + metadataLine + "\n\nb\n" + metadataLine + "end", "a\nPROG\n<5>\n\nb\n<5>end"},
      {metadataLine + "PROGRESS {\"phase\":\"finalizing\"}", "<5><6>"},
      {untouched, untouched}};
  for (const auto& [stream, seen] : rows) {
    for (const std::size_t pieceBytes : {std::size_t{1}, std::size_t{7}, stream.size()}) {
      ProgressLineReader reader;
      std::string text;
      for (std::size_t at = 0; at < stream.size(); at += pieceBytes) {
        text += shown(reader.feed(std::string_view(stream).substr(at, pieceBytes)));
      }
      EXPECT_EQ(text + shown(reader.finish()), seen) << "in pieces of " << pieceBytes;
    }
  }
  ProgressLineReader reader;
  EXPECT_EQ(shown(reader.feed("Continue? ")), "Continue? ") << "an unfinished line is shown at once";
  const std::string endless = "\nPROGRESS \"" + std::string(ProgressLineReader::maximumHeldBytes, 'x');
  EXPECT_EQ(shown(reader.feed(endless)), endless);
  EXPECT_EQ(shown(reader.feed("\n" + metadataLine)), "\n<5>");
}

CopyingPayloadProgress copied(std::uint64_t reused, std::uint64_t downloaded, std::uint64_t total = 10000) {
  return {reused, downloaded, total};
}

TEST(ProgressMeter, CountsReusedBytesAsDoneAndFetchedOnesAsRate) {
  using Events = std::vector<std::pair<milliseconds, CopyingPayloadProgress>>;
  const Events window = {{0s, copied(0, 0)}, {10s, copied(0, 5000)}, {20s, copied(0, 6000)}};
  const Events again = {
      {0s, copied(0, 0)}, {1s, copied(0, 2000)}, {2s, copied(0, 1000)}, {4s, copied(0, 3000)}};
  const std::vector<std::tuple<std::string, Events, milliseconds, std::string>> rows = {
      {"no rate in the first second", {{0s, copied(0, 0)}, {900ms, copied(0, 900)}}, 900ms, "9%"},
      {"fetched", {{0s, copied(0, 0)}, {2s, copied(0, 1000)}}, 2s, "10% 500/s 18s"},
      {"reused bytes are done at once",
       {{0s, copied(6000, 0)}, {2s, copied(6000, 1000)}},
       2s,
       "70% 500/s 6s"},
      {"the last ten seconds only", window, 20s, "60% 100/s 40s"},
      {"nothing comes any more", {{0s, copied(0, 0)}, {2s, copied(0, 4000)}}, 13s, "40% 0/s"},
      {"a range fetched again", again, 4s, "30% 1000/s 7s"},
      {"a long wait after the last byte", {{0s, copied(0, 0)}, {2s, copied(0, 10000)}}, 13s, "100%"},
      {"almost everything", {{0s, copied(0, UINT64_MAX - 1, UINT64_MAX)}}, 0s, "99%"},
  };
  for (const auto& [name, events, at, summary] : rows) {
    ProgressMeter meter;
    for (const auto& [time, event] : events) meter.apply(event, start + time);
    const PhaseState state = meter.current(start + at).value();
    std::string seen = fmt::format("{}%", state.percent());
    if (state.rate) seen += fmt::format(" {}/s", *state.rate);
    if (state.left) seen += fmt::format(" {}s", state.left->count());
    EXPECT_EQ(seen, summary) << name;
  }
}

PhaseState copying(std::uint64_t reused) {
  PhaseState state;
  state.phase = InstallPhase::copying;
  state.elapsed = 95s;
  state.totalBytes = 14200000000;
  state.reusedBytes = reused;
  state.doneBytes = 6000000000;
  state.rate = 35100000.0;
  state.left = 234s;
  return state;
}

PhaseState hashing(std::string file) {
  PhaseState state;
  state.phase = InstallPhase::hashing;
  state.file = std::move(file);
  state.files = 12;
  state.elapsed = 41s;
  return state;
}

TEST(Screen, FitsEveryWidth) {
  const PhaseState resumed = copying(1704000000);
  const PhaseState layer = hashing("packed_experts/layer_12.bin");
  using enum Glyphs;
  const std::vector<std::tuple<std::string, PhaseState, std::size_t, Glyphs, std::string>> rows = {
      {"200", resumed, 200, unicode,
       "Copying    ███████████████████"
       "██████▎░░░░░░░░░░░░░░░░░░░░░░░░░░░░░░░░░░"
       "  42%   6.0/14.2 GB  35.1 MB/s     3:54 left  12% reused"},
      {"80 in ASCII", resumed, 80, ascii,
       "Copying    [####------]  42%   6.0/14.2 GB  35.1 MB/s     3:54 left  12% reused"},
      {"without the bar", resumed, 38, ascii, "Copying     42%     3:54 left"},
      {"10", resumed, 10, ascii, "Copyin..."},
      {"a name", layer, 80, ascii, "Hashing    packed_experts/layer_12.bin  file 12  41 s"},
      {"a name cut in the middle", layer, 45, unicode, "Hashing    packed_e…er_12.bin  file 12  41 s"},
      {"a wide name", hashing("模型/模型/層.bin"), 26, unicode, "Hashing    模型/…/層.bin"},
      {"a hostile name", hashing("a\033[2J\u202Eb\nc"), 80, ascii,
       R"(Hashing    a\x1b[2J\xe2\x80\xaeb\x0ac  file 12  41 s)"},
  };
  for (const auto& [name, state, columns, glyphs, text] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(liveLine(state, {.columns = columns, .glyphs = glyphs}), text);
  }
}

TEST(Screen, NeverReachesTheLastColumn) {
  std::size_t lines = 0;
  const auto expectFits = [&](const std::string& line, std::size_t columns) {
    EXPECT_LE(displayColumns(line), std::max<std::size_t>(columns, 2) - 1) << line;
    lines += 1;
  };
  for (const std::string& file :
       {std::string("e\u0301模型👩‍👩‍👧❤️/層.bin"), std::string(300, 'x')}) {
    PhaseState state = copying(file.size());
    state.file = file;
    state.left = 400h;
    state.totalBytes = UINT64_MAX;
    for (const InstallPhase phase : {InstallPhase::planning, InstallPhase::copying, InstallPhase::hashing}) {
      state.phase = phase;
      for (std::size_t columns = 1; columns <= 250; ++columns) {
        for (const Glyphs glyphs : {Glyphs::ascii, Glyphs::unicode}) {
          const Look look{.columns = columns, .glyphs = glyphs};
          expectFits(liveLine(state, look), columns);
          expectFits(endedLine(state, PhaseEnd::stopped, look), columns);
        }
      }
    }
  }
  EXPECT_EQ(lines, 2U * 3 * 250 * 2 * 2);
}

TEST(Viewer, DrawsAtMostTenTimesASecondAndNeverOverAnUnfinishedLine) {
  Viewer viewer(Viewer::Mode::live, {.columns = 90});
  const std::string text = "Metadata   reading the source's metadata and any saved download  ";
  EXPECT_EQ(viewer.takeOutput(metadataLine, start), "\033[?25l" + text + "0.0 s\033[K\r");
  EXPECT_EQ(viewer.takeOutput(metadataLine, start + 50ms), "");
  EXPECT_EQ(viewer.nextTick(), start + 100ms);
  EXPECT_EQ(viewer.tick(start + 100ms), text + "0.1 s\033[K\r");
  EXPECT_EQ(viewer.nextTick(), start + 1100ms) << "without news once a second";

  EXPECT_EQ(viewer.takeOutput("half", start + 150ms), "\r\033[K\033[?25hhalf");
  EXPECT_EQ(viewer.nextTick(), std::nullopt);
  EXPECT_EQ(viewer.tick(start + 9s), "");
  EXPECT_EQ(viewer.takeOutput(" a line\n", start + 9s), " a line\n\033[?25l" + text + "9.0 s\033[K\r");

  EXPECT_EQ(viewer.hide(), "\r\033[K\033[?25h");
  EXPECT_EQ(viewer.tick(start + 10s), "");
  EXPECT_EQ(viewer.show(start + 10s), "\033[?25l" + text + "10 s\033[K\r");
  EXPECT_EQ(viewer.beforeErrors("oops", start + 10s), "\r\033[K\033[?25h");
  EXPECT_EQ(viewer.finish(PhaseEnd::stopped, start + 11s), "\nMetadata   stopped after 11 s\n");
}

TEST(Viewer, WithoutATerminalSaysSomethingEveryTenSeconds) {
  Viewer viewer(Viewer::Mode::plain, {});
  std::string log;
  for (int second = 0; second <= 35; ++second) {
    const ProgressTime now = start + seconds(second);
    log += viewer.takeOutput("PROGRESS {\"downloadedBytes\":" + std::to_string(second * 20) +
                                 ",\"phase\":\"copying\",\"reusedBytes\":250,\"totalBytes\":1000}\n",
                             now);
    log += viewer.tick(now);
  }
  log += viewer.takeOutput("PROGRESS {\"phase\":\"finalizing\"}\nInstalled\n", start + 36s);
  log += viewer.finish(PhaseEnd::stopped, start + 36s);
  EXPECT_EQ(log,
            "Copying: 25%, 0.25/1.00 kB, 25% reused\n"
            "Copying: 45%, 0.45/1.00 kB, 20 B/s, 0:28 left, 25% reused\n"
            "Copying: 65%, 0.65/1.00 kB, 20 B/s, 0:18 left, 25% reused\n"
            "Copying: 85%, 0.85/1.00 kB, 20 B/s, 0:08 left, 25% reused\n"
            "Copying: 700 B fetched in 36 s, 19 B/s, 250 B (25%) reused\n"
            "Finalizing: writing the manifest, moving the artifact into place\n"
            "Finalizing: done in 0.0 s\n"
            "Installed\n");
}

TEST(Viewer, SaysThatThereIsNoNetwork) {
  bool hasNetwork = false;
  const auto isThere = [&] { return hasNetwork; };
  Viewer log(Viewer::Mode::plain, {}, isThere);
  std::string said = log.takeOutput(
      "PROGRESS {\"downloadedBytes\":5,\"phase\":\"copying\",\"reusedBytes\":0,\"totalBytes\":10}\n", start);
  for (int second = 1; second <= 50; ++second) {
    hasNetwork = second > 35;
    said += log.tick(start + seconds(second));
  }
  EXPECT_EQ(said,
            "Copying: 50%, 5/10 B\n"
            "Copying: 50%, no network; waiting for one\n"
            "Copying: 50%, 5/10 B, 0 B/s, stalled\n"
            "Copying: 50%, 5/10 B, 0 B/s, stalled\n");
}

TEST(Viewer, EndsAPhaseBeforeTheErrorThatEndedIt) {
  Viewer viewer(Viewer::Mode::live, {.columns = 90});
  viewer.takeOutput(metadataLine, start);
  EXPECT_EQ(viewer.resize(40, start),
            "\r\033[J\033[?25h\033[?25lMetadata   reading the source's meta...\033[K\r");
  EXPECT_EQ(viewer.beforeErrors("a warning\n", start), "\r\033[K\033[?25h");
  EXPECT_EQ(viewer.beforeErrors("install failed: cancelled\n", start + 2s),
            "Metadata   stopped after 2.0 s\n");
  EXPECT_EQ(viewer.finish(PhaseEnd::stopped, start + 3s), "");
}

TEST(Advice, NamesTheNextStepWhereOneIsKnown) {
  const FailureSituation none{};
  const FailureSituation early{.reached = Viewer::Reached::started};
  const FailureSituation fresh{.reached = Viewer::Reached::copying};
  const FailureSituation resumed{.reached = Viewer::Reached::started, .isResume = true};
  const std::string again = "run the same command again";
  const std::string resume = again + " with --resume";
  const std::string busy = "another installer is working on this output: wait until it ends, or stop it";
  const std::string proxy = "fix or unset the proxy (see https_proxy and no_proxy), then " + resume;
  const std::string discard =
      "remove the saved download with --discard-partial, then install again without --resume";
  const std::vector<std::tuple<std::string, FailureSituation, std::string>> rows = {
      {"could not find the address of h (https://h/a)", early,
       "check the network, then remove the partial download with --discard-partial and " + again},
      {"no answer from h for 60 seconds (https://h/a)", resumed, "check the network, then " + again},
      {"could not connect to the proxy p:1: Connection refused (u)", fresh, proxy},
      {"the proxy p:1 refused a connection to h with status 403 (u)", fresh, proxy},
      {"the proxy p:1 refused a connection to h with status 407 (u)", fresh,
       "put a user name and password for the proxy into https_proxy, then " + resume},
      {"the certificate of h:1 through the proxy p:1 is not trusted: self-signed certificate (u)", fresh,
       "add the certificates of the proxy's authority to SSL_CERT_FILE, then " + resume},
      {"remote HTTP 401: u", resumed, "set HF_TOKEN to a token with access to the model, then " + again},
      {"remote HTTP 429: u", fresh, "the hub is busy or out of order: wait a while, then " + resume},
      {"remote HTTP 404: u", fresh, ""},
      {"insufficient disk space for /a: required 9: required 3000000500, available 500", resumed,
       "free at least 3000000000 bytes (3.00 GB) on the disk of /a: required 9, then " + again},
      {"another installer holds /a.install.lock", fresh, busy},
      {"install state is incompatible: saved download exists; resume or discard it", none,
       "continue the saved download with --resume, or remove it with --discard-partial"},
      {"install state is incompatible: saved download source or copy plan changed", resumed, discard},
      {"atomic directory promotion is unsupported for /a: errno 16", none,
       "the output is a mount point and cannot be replaced: name a directory inside it"},
  };
  for (const auto& [text, situation, advice] : rows) {
    EXPECT_EQ(adviceFor("install failed: " + text, situation).value_or(""), advice) << text;
  }
  EXPECT_EQ(adviceFor("discard failed: another installer holds /a", none), busy);
  EXPECT_EQ(adviceFor("discard failed: no resumable install state exists for /a", none), std::nullopt);
  EXPECT_EQ(adviceFor("could not connect to h", fresh), std::nullopt) << "nothing the installer said";
  EXPECT_EQ(adviceAfterSignal(none), std::nullopt) << "of a command that is no install";
}

}  // namespace
}  // namespace vellicor::testing
