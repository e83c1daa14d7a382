#include "pimsm/upstream/upstream_rx.h"

#include <fmt/format.h>

#include "cask/trace.h"
#include "platform/pim_status.h"

namespace Routing::Pim::SparseMode {

using Routing::Pim::JoinPruneSet;

JoinPruneMessageInfo rxEntry(const VrfContext& in, const char* machine, bool join) {
    JoinPruneMessageInfo m =
        join ? in.joinPruneRxStatus->rxJoin() : in.joinPruneRxStatus->rxPrune();
    CASK_VRF_TRACE(6, in.vrfName, "{}::{}({}) on {} from {}", machine,
                   join ? "handleRxJoin" : "handleRxPrune", m.riKey, m.intf, m.sender);
    return m;
}

std::string rxIgnoreReason(const VrfContext& in, const RxTexts& texts,
                           const JoinPruneMessageInfo& m, bool otherKind, const RouteKey& key,
                           const Route* route, absl::FunctionRef<bool(const Route&)> active,
                           absl::FunctionRef<bool(const Route&)> addressed) {
    if (otherKind) return texts.otherKind;
    if (!in.pimStatus->neighborExists(m.intf, m.sender)) {
        return fmt::format(", Message from non-neighbor {}", m.sender);
    }
    if (!route) return fmt::format(fmt::runtime(texts.noRoute), key);
    if (!active(*route)) return fmt::format(fmt::runtime(texts.notActive), key);
    if (!addressed(*route)) return texts.notUpstream;
    return {};
}

const Rpf* rpfAddressedBy(std::initializer_list<const Rpf*> upstreams,
                          const JoinPruneMessageInfo& m) {
    for (const Rpf* rpf : upstreams) {
        if (rpf && rpf->hasNeighbor() && rpf->neighbor == m.upstreamNeighbor &&
            rpf->intf == m.intf) {
            return rpf;
        }
    }
    return nullptr;
}

const char* unsuppressedBecause(const JoinPruneNeighbor* nbr, const Wirl::IpGenAddr& group,
                                const JoinPruneEntry* entry) {
    if (!nbr) return ", Neighbor down";
    if (!JoinPruneWriter::groupData(*nbr, JoinPruneSet::periodic, group)) {
        return ", No periodic join for group";
    }
    if (!entry || !JoinPruneWriter::has(*nbr, JoinPruneSet::periodic, *entry)) {
        return ", No periodic join for source";
    }
    return nullptr;
}

JoinPruneNeighbor* overrideNeighbor(const VrfContext& in, const char* machine,
                                    const JoinPruneWriter& writer, const Rpf& rpf,
                                    const JoinPruneMessageInfo& m) {
    JoinPruneNeighbor* nbr = writer.neighbor(rpf.intf, rpf.neighbor);
    if (!nbr) {
        CASK_VRF_TRACE(7, in.vrfName, "{}::handleRxPrune({}), Neighbor down", machine, m.riKey);
    }
    return nbr;
}

}  // namespace Routing::Pim::SparseMode
