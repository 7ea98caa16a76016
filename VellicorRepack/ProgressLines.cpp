#include "VellicorRepack/ProgressLines.h"

#include <stdexcept>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorRepack/Console.h"

namespace vellicor {

namespace {

struct MemberWriter {
  CanonicalJson& json;

  void operator()(const PlanningProgress& event) const {
    json.member("downloadBytes", event.downloadBytes)
        .member("outputBytes", event.outputBytes)
        .member("phase", "planning");
  }
  void operator()(const CheckingDiskProgress&) const { json.member("phase", "checkingDisk"); }
  void operator()(const ReservingOutputProgress& event) const {
    json.member("outputBytes", event.bytes).member("phase", "reserving");
  }
  void operator()(const CopyingPayloadProgress& event) const {
    json.member("downloadedBytes", event.downloadedThisRun)
        .member("phase", "copying")
        .member("reusedBytes", event.reusedBytes)
        .member("totalBytes", event.total);
  }
  void operator()(const HashingOutputProgress& event) const {
    json.member("file", event.relativePath).member("phase", "hashing");
  }
  void operator()(const DownloadingMetadataProgress&) const { json.member("phase", "metadata"); }
  void operator()(const FinalizingProgress&) const { json.member("phase", "finalizing"); }
};

}  // namespace

std::string progressLine(const ModelInstallProgress& progress) {
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::escaped);
  json.beginObject();
  std::visit(MemberWriter{json}, progress);
  json.endObject();
  return "PROGRESS " + std::move(json).take() + "\n";
}

void emit(const ModelInstallProgress& progress) try {
  writeToConsole(ConsoleStream::standardOutput, progressLine(progress));
} catch (const std::invalid_argument&) {
  return;
}

}  // namespace vellicor
