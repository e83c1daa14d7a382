// The switchover policy: which groups switch to the source tree for a given
// default and access lists, and how the two tries follow configuration and
// access-list changes.
#include "pimsm/forwarding/spt_threshold_sm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Routing::Pim::SparseMode {
namespace {

using T = DrSwitchThresh;

Wirl::IpGenAddr addr(const std::string& s) {
    return *Wirl::IpGenAddr::parse(s);
}

// "permit 239.1.0.0/16" / "deny ..."
Acl::AccessList list(const std::vector<std::string>& rules) {
    Acl::AccessList l;
    for (const auto& r : rules) {
        const auto space = r.find(' ');
        l.rule.push_back(
            {r.substr(0, space) == "permit", *Wirl::IpGenPrefix::parse(r.substr(space + 1))});
    }
    return l;
}

class SptThresholdTest : public ::testing::Test {
protected:
    void start(Wirl::AddressFamily family = Wirl::AddressFamily::ipv4) {
        config = Cask::make<Config>(family);
        acls = Cask::make<Acl::AclConfig>();
        info = Cask::make<SptThresholdInfo>(family, L3::VrfName("blue"));
        ctx.vrfName = L3::VrfName("blue");
        ctx.family = family;
        ctx.config = config.get();
        ctx.aclConfig = acls.get();
        ctx.sptThresholdInfo = info.get();
        sm = sptThresholdSmFactory(ctx);
    }
    bool switches(const std::string& group) { return info->sptThreshold(addr(group), *config); }
    std::vector<std::string> trie(T t) {
        std::vector<std::string> out;
        for (const auto& p : info->trie(t).prefixes()) out.push_back(p.str());
        return out;
    }

    Cask::Ptr<Config> config;
    Cask::Ptr<Acl::AclConfig> acls;
    Cask::Ptr<SptThresholdInfo> info;
    VrfContext ctx;
    std::unique_ptr<SptThresholdSm> sm;
};

TEST_F(SptThresholdTest, GroupDecisionForDefaultAndLists) {
    struct Exception {
        std::string name;
        T threshold;
        std::vector<std::string> rules;  // empty: the list is not defined
    };
    struct Case {
        const char* what;
        Wirl::AddressFamily family;
        T byDefault;
        std::vector<Exception> lists;
        std::vector<std::pair<std::string, bool>> groups;
    };
    const auto v4 = Wirl::AddressFamily::ipv4, v6 = Wirl::AddressFamily::ipv6;
    const Case cases[] = {
        {"immediate, no lists", v4, T::immediate, {}, {{"239.1.2.3", true}, {"224.1.1.1", true}}},
        {"never, no lists", v4, T::never, {}, {{"239.1.2.3", false}}},
        {"never with an immediate list",
         v4,
         T::never,
         {{"fast", T::immediate, {"permit 239.1.0.0/16"}}},
         {{"239.1.2.3", true}, {"239.2.0.1", false}}},
        {"immediate with a never list",
         v4,
         T::immediate,
         {{"slow", T::never, {"permit 239.1.0.0/16"}}},
         {{"239.1.2.3", false}, {"239.2.0.1", true}}},
        // A list of the default's own threshold changes nothing.
        {"immediate with an immediate list",
         v4,
         T::immediate,
         {{"fast", T::immediate, {"permit 239.1.0.0/16"}}},
         {{"239.2.0.1", true}}},
        {"an earlier deny cuts a hole in a later permit",
         v4,
         T::never,
         {{"fast", T::immediate, {"deny 239.1.1.0/24", "permit 239.1.0.0/16"}}},
         {{"239.1.1.5", false}, {"239.1.2.3", true}, {"239.1.0.255", true}}},
        {"a deny after its permit changes nothing",
         v4,
         T::never,
         {{"fast", T::immediate, {"permit 239.1.0.0/16", "deny 239.1.1.0/24"}}},
         {{"239.1.1.5", true}}},
        {"a list named but not defined",
         v4,
         T::never,
         {{"ghost", T::immediate, {}}},
         {{"239.1.1.5", false}}},
        {"rules of the other family are ignored",
         v4,
         T::never,
         {{"fast", T::immediate, {"permit ff00::/8", "permit 239.9.0.0/16"}}},
         {{"239.9.0.1", true}, {"239.8.0.1", false}}},
        {"IPv6",
         v6,
         T::never,
         {{"fast", T::immediate, {"permit ff3e::/16"}}},
         {{"ff3e::1:2", true}, {"ff0e::1", false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        start(c.family);
        config->drSwitchIs(c.byDefault);
        for (const auto& e : c.lists) {
            if (!e.rules.empty()) acls->aclIs(e.name, list(e.rules));
            config->drSwitchAclIs(e.name, e.threshold);
        }
        for (const auto& [group, expected] : c.groups)
            EXPECT_EQ(switches(group), expected) << group;
    }
}

TEST_F(SptThresholdTest, APrefixStaysWhileAnyListClaimsIt) {
    start();
    config->drSwitchIs(T::never);
    acls->aclIs("a", list({"permit 239.1.0.0/16"}));
    acls->aclIs("b", list({"permit 239.1.0.0/16", "permit 239.5.0.0/16"}));
    config->drSwitchAclIs("a", T::immediate);
    config->drSwitchAclIs("b", T::immediate);
    const auto p = *Wirl::IpGenPrefix::parse("239.1.0.0/16");
    EXPECT_EQ(info->prefixRCI()->counter(p), 2u);

    config->drSwitchAclDel("a");
    EXPECT_EQ(info->prefixRCI()->counter(p), 1u);
    EXPECT_TRUE(switches("239.1.2.3"));
    EXPECT_EQ(sm->drSwitchAcl().count("a"), 0u);

    config->drSwitchAclDel("b");
    EXPECT_FALSE(info->prefixRCI()->counterHas(p));
    EXPECT_FALSE(switches("239.1.2.3"));
    EXPECT_TRUE(info->trieImmediate().empty());
}

TEST_F(SptThresholdTest, ChangesMoveThePrefixesAndCountOnce) {
    start();
    config->drSwitchIs(T::never);
    acls->aclIs("a", list({"permit 239.1.0.0/16", "permit 239.3.0.0/16"}));
    config->drSwitchAclIs("a", T::immediate);
    EXPECT_EQ(trie(T::immediate), (std::vector<std::string>{"239.1.0.0/16", "239.3.0.0/16"}));

    // A new threshold for the list: every prefix changes trie, one change.
    auto before = info->sptConfigChanged();
    config->drSwitchAclIs("a", T::never);
    EXPECT_EQ(info->sptConfigChanged(), before + 1);
    EXPECT_TRUE(trie(T::immediate).empty());
    EXPECT_EQ(trie(T::never), (std::vector<std::string>{"239.1.0.0/16", "239.3.0.0/16"}));

    // New rules for the list it uses: recomputed, one change.
    before = info->sptConfigChanged();
    acls->aclIs("a", list({"permit 239.3.0.0/16", "permit 239.4.0.0/16"}));
    EXPECT_EQ(info->sptConfigChanged(), before + 1);
    EXPECT_EQ(trie(T::never), (std::vector<std::string>{"239.3.0.0/16", "239.4.0.0/16"}));

    // A list no exception uses: nothing to do.
    before = info->sptConfigChanged();
    acls->aclIs("unused", list({"permit 239.7.0.0/16"}));
    EXPECT_EQ(info->sptConfigChanged(), before);

    // The default: the tries stay, the answers flip, one change.
    config->drSwitchIs(T::immediate);
    EXPECT_EQ(info->sptConfigChanged(), before + 1);
    EXPECT_FALSE(switches("239.3.0.1"));
    EXPECT_TRUE(switches("239.1.0.1"));
}

TEST_F(SptThresholdTest, ConfigurationPresentAtStartIsRead) {
    start();
    // A second machine over a configuration that is already filled in.
    config->drSwitchIs(T::never);
    acls->aclIs("a", list({"permit 239.1.0.0/16"}));
    config->drSwitchAclIs("a", T::immediate);
    auto info2 = Cask::make<SptThresholdInfo>(Wirl::AddressFamily::ipv4, L3::VrfName("blue"));
    ctx.sptThresholdInfo = info2.get();
    auto sm2 = sptThresholdSmFactory(ctx);
    EXPECT_TRUE(info2->initialized());
    EXPECT_TRUE(info2->sptThreshold(addr("239.1.2.3"), *config));
    EXPECT_FALSE(info2->sptThreshold(addr("239.2.0.1"), *config));
}

TEST_F(SptThresholdTest, WithdrawingAPrefixNoListAddedIsABrokenPrecondition) {
    start();
    const auto p = *Wirl::IpGenPrefix::parse("239.1.0.0/16");
    EXPECT_DEATH(sm->updateTrie(p, false, T::immediate), "prefixRCI\\(\\)->counter\\( prefix \\)");
    EXPECT_DEATH(sm->updateTrie(p, false, T::never), "prefixRCN\\(\\)->counter\\( prefix \\)");
}

}  // namespace
}  // namespace Routing::Pim::SparseMode
