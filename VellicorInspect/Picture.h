#pragma once

#include <string>

#include "VellicorInspect/Report.h"

namespace vellicor {

/// An SVG picture, 1200 units wide, of where an artifact's bytes are: the shares of the families, every file
/// to scale, and one layer file and one of its experts magnified. It needs no other file, and the same
/// artifact gives the same text. Regions thinner than half a unit are drawn together with their neighbours.
std::string picture(const Inspection& inspection);

}  // namespace vellicor
