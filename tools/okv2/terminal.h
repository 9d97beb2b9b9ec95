// What may be sent to a terminal beside plain lines.
#pragma once

namespace zel::tool {

// Whether the descriptor is a terminal that moves its cursor when told to: TERM is set, and not to "dumb".
[[nodiscard]] bool obeysControls(int descriptor);

// Such a terminal, and NO_COLOR is absent or empty (no-color.org).
[[nodiscard]] bool wantsColour(int descriptor);

}  // namespace zel::tool
