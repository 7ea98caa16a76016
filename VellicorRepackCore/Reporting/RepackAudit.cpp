#include "VellicorRepackCore/Reporting/RepackAudit.h"

#include <utility>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/Unicode.h"

namespace vellicor {

namespace {

void writeStrings(CanonicalJson& json, std::string_view key, const std::vector<std::string>& items) {
  json.key(key).beginArray();
  for (const std::string& item : items) json.value(item);
  json.endArray();
}

void writeOptional(CanonicalJson& json, std::string_view key, const std::optional<std::string>& text) {
  if (text) json.member(key, *text);
}

void writeOutputFiles(CanonicalJson& json, const std::vector<RepackAudit::OutputFile>& files) {
  json.key("output_files").beginArray();
  for (const RepackAudit::OutputFile& file : files) {
    json.beginObject()
        .member("path", file.relativePath)
        .member("sha256", file.sha256)
        .member("size", file.size)
        .endObject();
  }
  json.endArray();
}

void writeRetries(CanonicalJson& json, const std::vector<RepackAudit::RemoteRetryRecord>& retries) {
  json.key("remote_retries").beginArray();
  for (const RepackAudit::RemoteRetryRecord& retry : retries) {
    json.beginObject()
        .member("attempt", retry.attempt)
        .member("detail", repairedUtf8(retry.detail))
        .member("label", retry.label)
        .endObject();
  }
  json.endArray();
}

}  // namespace

void RepackAudit::recordRemoteRetry(std::string label, std::int64_t attempt, std::string detail) {
  remoteRangeRetries += 1;
  remoteRetries.push_back({.label = std::move(label), .attempt = attempt, .detail = std::move(detail)});
}

std::string RepackAudit::toJSONData(const std::string& outputDir) const {
  CanonicalJson json(CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain);
  json.beginObject();
  json.member("bit_width_overrides_honored", bitWidthOverridesHonored);
  json.member("byte_copy_tiles", byteCopyTiles);
  json.member("intentional_copy_bytes", intentionalCopyBytes);
  json.member("largest_remote_payload_heap_bytes", largestRemotePayloadHeapBytes);
  json.member("largest_remote_transfer_bytes", largestRemoteTransferBytes);
  json.member("largest_scratch_bytes", largestScratchBytes);
  json.member("malloc_count_observed", mallocCountObserved);
  json.member("output_bytes_written", outputBytesWritten);
  json.member("output_dir", repairedUtf8(outputDir));
  writeOutputFiles(json, outputFiles);
  json.member("packed_expert_layout_audit_logical_id_count", packedExpertLayoutAuditLogicalIDCount);
  json.member("packed_expert_layout_mode", packedExpertLayoutMode);
  json.member("packed_expert_layout_offset_validation_passed", packedExpertLayoutOffsetValidationPassed);
  writeOptional(json, "packed_expert_layout_order_path", packedExpertLayoutOrderPath);
  writeOptional(json, "packed_expert_layout_order_sha256", packedExpertLayoutOrderSha256);
  writeOptional(json, "packed_expert_layout_strategy", packedExpertLayoutStrategy);
  json.member("packed_expert_reordered_layer_count", packedExpertReorderedLayerCount);
  json.member("peak_rss_bytes", peakRssBytes);
  json.member("platform_memmove_observed", platformMemmoveObserved);
  json.member("remote_bytes_downloaded", remoteBytesDownloaded);
  json.member("remote_gap_bytes_downloaded", remoteGapBytesDownloaded);
  json.member("remote_range_requests", remoteRangeRequests);
  json.member("remote_range_retries", remoteRangeRetries);
  json.member("remote_range_streaming_supported", remoteRangeStreamingSupported);
  writeOptional(json, "remote_repo_id", remoteRepoID);
  writeOptional(json, "remote_requested_revision", remoteRequestedRevision);
  writeOptional(json, "remote_resolved_commit", remoteResolvedCommit);
  writeRetries(json, remoteRetries);
  json.member("rss_sample_count", std::uint64_t{rssSamples.size()});
  json.member("source_bytes_read", sourceBytesRead);
  json.member("source_snapshot_sha256", sourceSnapshotSha256);
  writeStrings(json, "stale_partials_removed", stalePartialsRemoved);
  writeStrings(json, "tensors_dropped_multimodal", tensorsDroppedMultimodal);
  json.member("wall_time_s", wallTimeSeconds);
  json.member("whole_file_heap_buffers", wholeFileHeapBuffers);
  json.endObject();
  return std::move(json).take();
}

}  // namespace vellicor
