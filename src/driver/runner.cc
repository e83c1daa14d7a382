#include "driver/runner.h"

#include <algorithm>

#include "cask/random.h"
#include "cask/trace.h"
#include "driver/outputs.h"
#include "pimsm/agent/root_sm.h"

namespace Driver {

using namespace Routing::Pim::SparseMode;

namespace {

// The VRF's container while the VRF runs; null otherwise (nobody receives
// what is sent to it then).
ContainerSm* runningContainer(Agent& agent, const L3::VrfName& vrf) {
    auto* root = agent.rootSm();
    return root ? root->containerSm().raw(vrf) : nullptr;
}

Wirl::AddressRangeSet rangeSet(Wirl::AddressFamily family,
                               const std::vector<Wirl::IpGenPrefix>& prefixes) {
    Wirl::AddressRangeSet set(family);
    for (const auto& p : prefixes) set.add(p);
    return set;
}

// The interfaces of `current` (a set or a map keyed by interface) that
// `wanted` leaves out: what replacing the set removes.
template <class C>
std::vector<Wirl::IntfId> listedOnlyIn(const C& current, const std::vector<Wirl::IntfId>& wanted) {
    std::vector<Wirl::IntfId> out;
    for (const auto& entry : current) {
        Wirl::IntfId id;
        if constexpr (requires { entry.first; }) {
            id = entry.first;
        } else {
            id = entry;
        }
        if (std::find(wanted.begin(), wanted.end(), id) == wanted.end()) out.push_back(id);
    }
    return out;
}

}  // namespace

Runner::Runner(const Scenario& scenario, RunOptions options)
    : scenario_(scenario),
      options_(options),
      clock_(options.clock ? *options.clock : virtualClock_),
      loop_(clock_),
      db_(scenario.family) {
    Cask::random().seedIs(options.seed);
    Cask::trace().clear();
    Cask::trace().levelIs(options.traceLevel);
    Cask::trace().timeSourceIs([this] { return clock_.now(); });
    Cask::eventLog().clear();
    Cask::eventLog().timeSourceIs([this] { return clock_.now(); });
    db_.mcastBoundaryStatusIs(Cask::make<Routing::McastBoundary::Status>());
    db_.aclConfigIs(Cask::make<Acl::AclConfig>());
    for (const auto& vrf : scenario.vrfs) publish(vrf);
    for (const auto& [name, value] : options.agentOptions) db_.optionIs(name, value);
    if (scenario.family == Wirl::AddressFamily::ipv4) {
        agent_ = std::make_unique<Agent4>(db_, loop_);
    } else {
        agent_ = std::make_unique<Agent6>(db_, loop_);
    }
}

Runner::~Runner() {
    agent_.reset();
    Cask::trace().timeSourceIs(nullptr);
    Cask::eventLog().timeSourceIs(nullptr);
}

// Publishes what the other parts of the system would publish for a VRF.
void Runner::publish(const VrfSpec& v) {
    const auto fam = scenario_.family;
    const auto ns = v.name.isDefault() ? Wirl::NamespaceName("default")
                                       : Wirl::NamespaceName("ns-" + v.name.str());
    db_.namespace_Is(ns);

    auto pim = Cask::make<Routing::Pim::Status>();
    for (const auto& i : v.interfaces) {
        auto intf = Cask::make<Routing::Pim::PimIntfStatus>(i.name);
        intf->usedAddrIs(i.addr);
        intf->usedMaskLenIs(static_cast<std::uint8_t>(i.address.length()));
        intf->usedDrIs(i.dr ? i.addr : Wirl::IpGenAddr::zero(fam));
        intf->joinPruneOverrideIntervalIs(i.overrideInterval);
        intf->assertTimeoutIs(i.assertTimeout);
        intf->assertOverrideIntervalIs(i.assertOverrideInterval);
        pim->intfIs(i.name, intf);
    }
    db_.pimStatusIs(v.name, pim);
    for (const auto& n : v.neighbors) publishNeighbor(v.name, n.interface, n.address, n.genId);

    auto rp = Cask::make<Platform::RpMapping>();
    for (const auto& m : v.rps) rp->rpIs(m.groups, m.address);
    db_.staticRpConfigIs(v.name, rp);
    auto config = Cask::make<Config>(fam);
    if (v.ssmRange) {
        Wirl::AddressRangeSet range(fam);
        for (const auto& p : *v.ssmRange) range.add(p);
        config->ssmRangeIs(range);
    }
    db_.configIs(v.name, config);
    db_.clearConfigIs(v.name, Cask::make<Routing::Pim::ClearMrouteConfig>());
    db_.bsrCrpStatusIs(v.name, Cask::make<Platform::BsrCrpStatus>());
    db_.discoveredSgIs(v.name, Cask::make<Platform::DiscoveredSgStatus>());
    db_.vifStatusIs(v.name, Cask::make<Platform::VifStatus>());
    auto mrib = Cask::make<Platform::MribVrfStatus>();
    auto urib = Cask::make<Routing::Unicast::RouteTable>(fam);
    for (const auto& r : v.routes) {
        urib->routeIs(
            {r.prefix, r.interface, r.nextHop, r.preference, r.metric, r.nextHop.isUnspecified()});
    }
    mrib->uribIs(urib);
    db_.mribVrfStatusIs(v.name, mrib);
    db_.rpConfigIs(v.name, Cask::make<Platform::RpMapping>());
    // The router's own addresses: an RP at one of them makes this router the
    // root of that group's shared tree (RFC 7761 I_am_RP(G)).
    auto localRp = Cask::make<Routing::Pim::RpLocalStatus>();
    for (const auto& a : v.localAddresses) localRp->localRpIs(a);
    for (const auto& i : v.interfaces) localRp->localRpIs(i.addr);
    db_.rpLocalStatusIs(v.name, localRp);
    // The forwarding, VXLAN and group-filter sides start with nothing set.
    db_.mfibConfigIs(v.name, Cask::make<Routing::Multicast::Fib::Config>());
    db_.fastFailoverIntfsIs(v.name, Cask::make<Routing::Multicast::Fib::SparseModeStatus>());
    db_.mcastVxlanStatusIs(v.name, Cask::make<Routing::Multicast::VxlanStatus>());
    db_.groupFilterStatusIs(v.name, Cask::make<Routing::Pim::GroupFilterStatus>(fam));
    db_.frrFilterStatusIs(v.name, Cask::make<FrrFilterStatus>(fam));
    db_.hwMfibStatusIs(v.name, Cask::make<Platform::HwMfibStatus>());
    // The register process and the forwarding plane's packet reports.
    db_.registerStatusIs(v.name, Cask::make<RegisterStatus>());
    db_.mrtUpcallIs(v.name, Cask::make<Routing::Pim::MrtUpcallStatus>());
    db_.membershipTableIs(v.name, Cask::make<Routing::Gmp::Tidal::Status>());
    db_.pimEnabledVrfIs(v.name);
    auto local = Cask::make<Platform::VrfStatusLocal>();
    local->networkNamespaceIs(ns);
    db_.vrfStatusLocalIs(v.name, local);
}

void Runner::publishNeighbor(const L3::VrfName& vrf, Wirl::IntfId intf, const Wirl::IpGenAddr& a,
                             unsigned genId) {
    auto pim = db_.pimStatus(vrf);
    auto* i = pim->intfRaw(intf);
    auto n = i->neighbor(a);
    if (!n) {
        neighborSince_[{vrf, intf, a}] = clock_.now();
        n = Cask::make<Routing::Pim::PimNeighborStatus>(Routing::Pim::NeighborKey{intf, a});
        n->genIdIs(genId);
        i->neighborIs(a, n);
    } else {
        n->genIdIs(genId);
    }
    pim->activeNeighborIs({intf, a});
}

double Runner::neighborSince(const L3::VrfName& vrf, Wirl::IntfId intf,
                             const Wirl::IpGenAddr& address) const {
    const auto it = neighborSince_.find({vrf, intf, address});
    return it == neighborSince_.end() ? -1 : it->second;
}

void Runner::apply(const Event& ev) {
    const auto fam = scenario_.family;
    switch (ev.kind) {
        case Event::Kind::join:
        case Event::Kind::leave: {
            auto table = db_.membershipTable(ev.vrf);
            Routing::Gmp::Tidal::RouteIntfKey key{{ev.source, ev.group}, ev.interface};
            if (ev.kind == Event::Kind::leave) {
                table->membershipDel(key);
            } else {
                table->membershipIs(key,
                                    {key, ev.include ? Routing::Gmp::Tidal::FilterMode::include
                                                     : Routing::Gmp::Tidal::FilterMode::exclude});
            }
            return;
        }
        case Event::Kind::neighborUp:
        case Event::Kind::genId:
            publishNeighbor(ev.vrf, ev.interface, ev.address, ev.genId);
            return;
        case Event::Kind::neighborDown: {
            auto pim = db_.pimStatus(ev.vrf);
            pim->activeNeighborDel({ev.interface, ev.address});
            pim->intfRaw(ev.interface)->neighborDel(ev.address);
            neighborSince_.erase({ev.vrf, ev.interface, ev.address});
            return;
        }
        case Event::Kind::dr: {
            auto* intf = db_.pimStatus(ev.vrf)->intfRaw(ev.interface);
            intf->usedDrIs(ev.flag ? intf->usedAddr() : Wirl::IpGenAddr::zero(fam));
            return;
        }
        case Event::Kind::rpf: {
            const auto& r = ev.route;
            db_.mribVrfStatus(ev.vrf)->urib()->routeIs({r.prefix, r.interface, r.nextHop,
                                                        r.preference, r.metric,
                                                        r.nextHop.isUnspecified()});
            return;
        }
        case Event::Kind::rpfWithdraw:
            db_.mribVrfStatus(ev.vrf)->urib()->routeDel(ev.route.prefix);
            return;
        case Event::Kind::rp:
            db_.staticRpConfig(ev.vrf)->rpIs(ev.rp.groups, ev.rp.address);
            return;
        case Event::Kind::rpWithdraw:
            db_.staticRpConfig(ev.vrf)->rpDel(ev.rp.groups);
            return;
        case Event::Kind::clear: {
            using Bit = Routing::Pim::MrouteClearFlags::Bit;
            Routing::Pim::MrouteClearFlags flags;
            const bool group = ev.group.family() != Wirl::AddressFamily::ipunknown;
            const bool source = ev.source.family() != Wirl::AddressFamily::ipunknown;
            if (group && source) {
                flags.set(Bit::singleRoute);
            } else if (group) {
                flags.set(Bit::group);
            } else {
                flags.set(Bit::allRoutes);
            }
            db_.clearConfig(ev.vrf)->clearRoutesIs(ev.group, ev.source, flags);
            return;
        }
        case Event::Kind::clearForwarding:
            db_.mfibConfig(ev.vrf)->clearMfibCountInc();
            return;
        case Event::Kind::bidirRanges:
            db_.groupFilterStatus(ev.vrf)->bidirRangeIs(rangeSet(fam, ev.groups));
            return;
        case Event::Kind::fastFailoverRanges:
            db_.frrFilterStatus(ev.vrf)->frrRangeIs(rangeSet(fam, ev.groups));
            return;
        case Event::Kind::fastFailoverIntfs: {
            auto status = db_.fastFailoverIntfs(ev.vrf);
            for (const auto id : listedOnlyIn(status->fastFailoverIntf(), ev.interfaces)) {
                status->fastFailoverIntfDel(id);
            }
            for (const auto id : ev.interfaces) status->fastFailoverIntfIs(id);
            return;
        }
        case Event::Kind::vxlanIntfs: {
            auto status = db_.mcastVxlanStatus(ev.vrf);
            for (const auto id : listedOnlyIn(status->vxlanIntf(), ev.interfaces)) {
                status->vxlanIntfDel(id);
            }
            for (const auto id : ev.interfaces) status->vxlanIntfIs(id, true);
            return;
        }
        case Event::Kind::data: {
            // What the forwarding plane reports for these packets: without
            // an entry, the first packet goes up as a cache miss; on another
            // interface than the entry's incoming one, a wrong-VIF report
            // (the plane reports such packets rate-limited, one per burst);
            // otherwise the entry forwards them and its packet count grows.
            const Routing::Pim::RouteKey key(ev.source, ev.group);
            auto upcalls = db_.mrtUpcall(ev.vrf);
            auto fib = db_.mfibTable(ev.vrf);
            if (!upcalls || !fib) return;  // the VRF is not running
            const auto* record = fib->route(Routing::Multicast::Fib::convertKey(key));
            using Kind = Routing::Pim::MrtUpcall::Kind;
            if (!record) {
                upcalls->upcallPush({Kind::noCache, key, 0, ev.interface});
            } else if (record->iif() != ev.interface) {
                upcalls->upcallPush({Kind::wrongVif, key, 0, ev.interface});
            } else {
                upcalls->activityIs(key, upcalls->activity(key) + ev.packets);
            }
            return;
        }
        case Event::Kind::hwProgramming: {
            if (auto hw = db_.hwMfibStatus(ev.vrf)) hw->hwProgrammingAllowedIs(ev.flag);
            return;
        }
        case Event::Kind::upcall: {
            auto upcalls = db_.mrtUpcall(ev.vrf);
            if (!upcalls) return;
            using Kind = Routing::Pim::MrtUpcall::Kind;
            upcalls->upcallPush({ev.flag ? Kind::wrongVif : Kind::noCache,
                                 Routing::Pim::RouteKey(ev.source, ev.group), 0, ev.interface});
            return;
        }
        case Event::Kind::registerOif:
        case Event::Kind::noRegisterOif: {
            auto status = db_.registerStatus(ev.vrf);
            if (!status) return;
            const Routing::Pim::RouteKey key(ev.source, ev.group);
            if (ev.kind == Event::Kind::registerOif) {
                ev.flag ? status->registerOifIs(key) : status->registerOifDel(key);
            } else {
                ev.flag ? status->noRegisterOifIs(key) : status->noRegisterOifDel(key);
            }
            return;
        }
        case Event::Kind::sptThreshold: {
            using Thresh = Config::DrSwitchThresh;
            auto config = db_.config(ev.vrf);
            auto acls = db_.aclConfig();
            // Rules first, so that an exception made below finds its list.
            for (const auto& l : ev.accessLists) {
                if (!l.rules) continue;
                Acl::AccessList list;
                for (const auto& r : *l.rules) list.rule.push_back({r.permit, r.group});
                acls->aclIs(l.name, list);
            }
            auto named = [](const Event& e, const std::string& name) {
                return std::any_of(e.accessLists.begin(), e.accessLists.end(),
                                   [&](const AccessListSpec& l) { return l.name == name; });
            };
            std::vector<std::string> dropped;
            for (const auto& [name, threshold] : config->drSwitchAcl()) {
                if (!named(ev, name)) dropped.push_back(name);
            }
            for (const auto& name : dropped) config->drSwitchAclDel(name);
            for (const auto& l : ev.accessLists) {
                config->drSwitchAclIs(l.name, l.immediate ? Thresh::immediate : Thresh::never);
            }
            config->drSwitchIs(ev.flag ? Thresh::immediate : Thresh::never);
            // A list that no VRF names any more is forgotten with its rules.
            for (const auto& name : dropped) {
                bool used = false;
                for (const auto& v : scenario_.vrfs)
                    used = used || db_.config(v.name)->drSwitchAclHas(name);
                if (!used) acls->aclDel(name);
            }
            return;
        }
        case Event::Kind::rxJoinPrune: {
            auto* c = runningContainer(*agent_, ev.vrf);
            if (!c) return;
            Routing::Pim::JoinPruneMessage m;
            m.sender = ev.address;
            m.intf = ev.interface;
            m.upstreamNeighbor = ev.upstream;
            m.holdTime = static_cast<std::uint16_t>(ev.holdTime);
            for (const auto& g : ev.jpGroups) {
                auto& gd = m.data->joinPruneGroupDataIs(g.group);
                if (g.joinWc) gd.wcSourceDataIs(*g.joinWc, true);
                if (g.pruneWc) gd.wcSourceDataIs(*g.pruneWc, false);
                for (const auto& s : g.joinSg) gd.joinedSourceIs(s);
                for (const auto& s : g.pruneSg) gd.prunedSourceIs(s);
                for (const auto& s : g.joinSgRpt) gd.joinedRptSourceIs(s);
                for (const auto& s : g.pruneSgRpt) gd.prunedRptSourceIs(s);
            }
            c->rxJoinPrune()->messageReceived(m);
            return;
        }
        case Event::Kind::rxAssert: {
            auto* c = runningContainer(*agent_, ev.vrf);
            if (!c) return;
            Routing::Pim::AssertMessage m;
            m.group = ev.group;
            m.source = ev.source;
            m.rpt = ev.flag;
            m.metricPreference = ev.preference;
            m.metric = ev.metric;
            m.sender = ev.address;
            c->assertMessageSm()->handleRxMessage(m, ev.interface);
            return;
        }
        case Event::Kind::show:
        case Event::Kind::expect:
            return;
    }
}

nlohmann::ordered_json Runner::output(Output what) {
    switch (what) {
        case Output::trace:
            return traceLines(Cask::trace(), traceSeen_);
        case Output::events:
            return traceLines(Cask::eventLog(), eventsSeen_);
        default:
            return vrfOutput(*this, scenario_, what);
    }
}

// Stands in for the packet side: triggered contents and PruneEchoes go out
// at once, override contents once their override delay has passed since
// they were first queued (RFC 7761 t_override, taken at its largest, the
// interface's Effective_Override_Interval), so that a Join seen meanwhile
// can still cancel them. What was sent leaves the pending sets; the
// `join-prune` output shows what was sent last.
void Runner::packetSide() {
    auto* root = agent_->rootSm();
    if (!root) return;
    const Cask::Seconds now = loop_.now();
    for (const auto& [vrf, c] : root->containerSm()) {
        auto* jp = c->joinPruneStatus();
        if (!jp) continue;
        for (const auto& [key, nbr] : jp->neighbor()) {
            nbr->triggeredSent();
            const OverrideKey ok{vrf.str(), key};
            if (nbr->pendingOverride().joinPruneGroupDataSize() == 0) {
                overrideSince_.erase(ok);
                continue;
            }
            const auto since = overrideSince_.try_emplace(ok, now).first;
            const auto* intf = c->pimStatus() ? c->pimStatus()->intfRaw(key.intf) : nullptr;
            const double delay = intf ? intf->joinPruneOverrideInterval() : 2.5;
            if (now + 1e-9 >= since->second + delay) {
                nbr->overrideSent();
                overrideSince_.erase(since);
            }
        }
        jp->pruneEchoesSent();
    }
}

int Runner::run(Report& report) {
    int failed = 0;
    for (const auto& ev : scenario_.events) {
        loop_.runUntil(ev.at);
        packetSide();
        apply(ev);
        packetSide();
        if (ev.kind == Event::Kind::show) {
            for (Output o : ev.outputs) report.show(ev.at, o, output(o));
        } else if (ev.kind == Event::Kind::expect) {
            const auto expected = nlohmann::ordered_json::parse(ev.expectJson);
            for (Output o : ev.outputs) {
                if (!report.expect(ev.at, ev.where, o, expected[outputName(o)], output(o)))
                    ++failed;
            }
        }
    }
    loop_.runUntil(std::max(scenario_.until, options_.until));
    packetSide();
    return failed;
}

}  // namespace Driver
