#include <nlohmann/json.hpp>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor::testing {
namespace {

using nlohmann::json;

TEST(RepackAudit, EveryFieldHasItsKey) {
  RepackAudit audit;
  std::tie(audit.sourceBytesRead, audit.outputBytesWritten, audit.intentionalCopyBytes, audit.byteCopyTiles,
           audit.largestScratchBytes, audit.mallocCountObserved, audit.bitWidthOverridesHonored,
           audit.peakRssBytes, audit.packedExpertReorderedLayerCount,
           audit.packedExpertLayoutAuditLogicalIDCount, audit.remoteBytesDownloaded,
           audit.remoteGapBytesDownloaded, audit.remoteRangeRequests, audit.largestRemoteTransferBytes,
           audit.largestRemotePayloadHeapBytes) =
      std::tuple(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  std::tie(audit.sourceSnapshotSha256, audit.packedExpertLayoutMode, audit.packedExpertLayoutOrderPath,
           audit.packedExpertLayoutOrderSha256, audit.packedExpertLayoutStrategy, audit.remoteRepoID,
           audit.remoteRequestedRevision, audit.remoteResolvedCommit) =
      std::tuple("ab", "other", "order/path", "cd", "strategy", "owner/name", "main", "0123");
  audit.platformMemmoveObserved = audit.remoteRangeStreamingSupported = true;
  audit.packedExpertLayoutOffsetValidationPassed = true;
  audit.wallTimeSeconds = 12.5;
  audit.rssSamples = {7, 7};
  audit.tensorsDroppedMultimodal = {"v", "a"};
  audit.stalePartialsRemoved = {"/p"};
  audit.outputFiles = {{"z/f", 18446744073709551615U, "ef"}};
  audit.recordRemoteRetry("resolveFileInfo:config.json", 1, "why");
  audit.recordRemoteRetry("resolveFileInfo:config.json", 2, "why");
  EXPECT_EQ(json::parse(audit.toJSONData("/out/m.morlen")), json::parse(R"({
    "source_bytes_read": 1, "output_bytes_written": 2, "intentional_copy_bytes": 3, "byte_copy_tiles": 4,
    "largest_scratch_bytes": 5, "whole_file_heap_buffers": false, "platform_memmove_observed": true,
    "malloc_count_observed": 6, "bit_width_overrides_honored": 7, "source_snapshot_sha256": "ab",
    "tensors_dropped_multimodal": ["v", "a"], "wall_time_s": 12.5, "peak_rss_bytes": 8,
    "output_files": [{"path": "z/f", "size": 18446744073709551615, "sha256": "ef"}], "rss_sample_count": 2,
    "packed_expert_layout_mode": "other", "packed_expert_layout_order_path": "order/path",
    "packed_expert_layout_order_sha256": "cd", "packed_expert_layout_strategy": "strategy",
    "packed_expert_reordered_layer_count": 9, "packed_expert_layout_audit_logical_id_count": 10,
    "packed_expert_layout_offset_validation_passed": true, "remote_bytes_downloaded": 11,
    "remote_gap_bytes_downloaded": 12, "remote_range_requests": 13, "remote_range_retries": 2,
    "remote_range_streaming_supported": true, "largest_remote_transfer_bytes": 14,
    "largest_remote_payload_heap_bytes": 15, "remote_repo_id": "owner/name",
    "remote_requested_revision": "main", "remote_resolved_commit": "0123",
    "remote_retries": [{"label": "resolveFileInfo:config.json", "attempt": 1, "detail": "why"},
                       {"label": "resolveFileInfo:config.json", "attempt": 2, "detail": "why"}],
    "stale_partials_removed": ["/p"], "output_dir": "/out/m.morlen"})"));
}

TEST(RepackAudit, AFreshAuditHasTheFixedKeysOnly) {
  const std::string text = RepackAudit().toJSONData("/out/m.morlen");
  EXPECT_EQ(json::parse(text).size(), 29U);
  EXPECT_THAT(text, HasSubstr("\n  \"output_dir\" : \"/out/m.morlen\",\n  \"output_files\" : [\n\n  ]"));
}

}  // namespace
}  // namespace vellicor::testing
