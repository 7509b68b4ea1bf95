#pragma once

namespace memm {

// Installs the handlers of SIGUSR1 and SIGUSR2 and what fork needs. `inside_another`: the application has replaced the
// manager lock.
void install_signal_handlers(bool inside_another) noexcept;

}  // namespace memm
