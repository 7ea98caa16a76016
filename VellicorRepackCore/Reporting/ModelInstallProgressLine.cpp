#include "VellicorRepackCore/Reporting/ModelInstallProgressLine.h"

#include <cstdint>
#include <utility>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/JsonReading.h"

namespace vellicor {

namespace {

// Each event's members besides "phase", with ascending keys. Writing and reading both come here.

void forEachMember(PlanningProgress& event, const auto& member) {
  member("downloadBytes", event.downloadBytes);
  member("outputBytes", event.outputBytes);
}
void forEachMember(CheckingDiskProgress&, const auto&) {}
void forEachMember(ReservingOutputProgress& event, const auto& member) { member("outputBytes", event.bytes); }
void forEachMember(CopyingPayloadProgress& event, const auto& member) {
  member("downloadedBytes", event.downloadedThisRun);
  member("reusedBytes", event.reusedBytes);
  member("totalBytes", event.total);
}
void forEachMember(HashingOutputProgress& event, const auto& member) { member("file", event.relativePath); }
void forEachMember(DownloadingMetadataProgress&, const auto&) {}
void forEachMember(FinalizingProgress&, const auto&) {}

template <typename Event>
std::string objectOf(Event event) {
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::escaped);
  json.beginObject();
  bool hasPhase = false;
  const auto writePhase = [&] {
    if (!std::exchange(hasPhase, true)) json.member("phase", Event::phaseName);
  };
  forEachMember(event, [&](std::string_view key, const auto& value) {
    if (key > "phase") writePhase();
    json.member(key, value);
  });
  writePhase();
  json.endObject();
  return std::move(json).take();
}

struct MemberReader {
  const JsonObject& object;

  void operator()(std::string_view key, std::uint64_t& value) const { value = object.unsignedInteger(key); }
  void operator()(std::string_view key, std::string& value) const { value = object.string(key); }
};

/// Reads the one of `Events` whose phase the object names.
template <typename... Events>
std::optional<ModelInstallProgress> eventOf(const JsonObject& object, std::variant<Events...>*) {
  const std::string phase = object.string("phase");
  std::optional<ModelInstallProgress> found;
  const auto readIfNamed = [&](auto event) {
    if (phase != event.phaseName) return;
    forEachMember(event, MemberReader{object});
    found = std::move(event);
  };
  (readIfNamed(Events{}), ...);
  return found;
}

}  // namespace

std::string progressLine(const ModelInstallProgress& event) {
  const std::string object = std::visit([](const auto& known) { return objectOf(known); }, event);
  return std::string(progressLineMark) + object + "\n";
}

std::optional<ModelInstallProgress> decodedProgressLine(std::string_view line) try {
  if (!line.starts_with(progressLineMark)) return std::nullopt;
  const JsonTree document = parseJson(line.substr(progressLineMark.size()));
  return eventOf(JsonObject(document.root, ""), static_cast<ModelInstallProgress*>(nullptr));
} catch (const JsonDecodingError&) {
  return std::nullopt;
}

}  // namespace vellicor
