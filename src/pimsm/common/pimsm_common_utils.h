#pragma once
// Helpers shared by the agent's machines.

namespace Routing::Pim::SparseMode {

// A jittered delay: x times a factor drawn uniformly from [0, 1), raised by
// 0.1 when it falls below 0.1. The factor therefore lies in [0.1, 1.0) and
// the band [0.1, 0.2) is twice as likely as any other band of its width; the
// shape is intended (a small jitter is never zero, which spreads timers
// re-armed together after a restart). Draws from Cask::random(), so runs are
// reproducible for a given seed.
double randomDelay(double x);

}  // namespace Routing::Pim::SparseMode
