// The product version, shared by the daemon and its clients.
#pragma once

#include <string_view>

namespace ostrel::OstrelVersion {

inline constexpr std::string_view string = "1.1.13";

}  // namespace ostrel::OstrelVersion
