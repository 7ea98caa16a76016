#pragma once

#include <string>

#include "VellicorInspect/Report.h"

namespace vellicor {

/// An SVG picture, 1200 units wide, of where an artifact's bytes are: the shares of the families, every file
/// to scale, and one layer file and one of its experts magnified. Stands alone, and is the same text for the
/// same artifact. What would be thinner than half a unit is drawn with its neighbours.
std::string picture(const Inspection& inspection);

}  // namespace vellicor
