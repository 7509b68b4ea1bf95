#pragma once

namespace memm {

// Installs the handlers of SIGUSR1 and SIGUSR2 and what fork needs.
void install_signal_handlers() noexcept;

}  // namespace memm
