#pragma once

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor::testing {

/// A small valid manifest with every optional field: two layers of four experts.
MorlenManifestV1 sampleManifest();

/// The layout that belongs to `sampleManifest`: explicit ids, and in layer 1 the blobs in reverse order.
MorlenPackedExpertsLayoutV1 sampleLayout();

/// The exact text of Tests/Format/data/<name>, without the line feed at its end.
std::string goldenText(std::string_view name);

/// `text` with its first `from` replaced; a test failure when it is missing.
std::string replaced(std::string text, std::string_view from, std::string_view to);

/// Applies every row of Tests/Format/data/<rowsName> to the JSON document `text` and expects `decode` to end
/// as the row says. A row is [name, {JSON pointer: new value, or "<removed>"}, text of the error or
/// "no error"]. Returns how many rows ran.
std::size_t expectDocumentRows(std::string_view rowsName, const std::string& text,
                               const std::function<void(const std::string&)>& decode);

}  // namespace vellicor::testing
