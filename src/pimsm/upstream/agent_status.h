#pragma once
// AgentStatus: what the sparse-mode agent of one address family tells the
// rest of the system about itself. For now: whether (*,G) routes are
// programmed into the forwarding hardware as such (`wcProgrammingSupported`),
// which PimsmWcSm decides from the hardware's capabilities.

#include "cask/collection.h"

namespace Routing::Pim::SparseMode {

class AgentStatus : public Cask::Record<AgentStatus> {
public:
    class Notifiee : public Cask::NotifieeOf<AgentStatus> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleWcProgrammingSupported() {}
    };
    CASK_ATTR(bool, wcProgrammingSupported, WcProgrammingSupported)

private:
    bool wcProgrammingSupported_ = false;
};

}  // namespace Routing::Pim::SparseMode
