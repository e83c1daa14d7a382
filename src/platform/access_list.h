#pragma once
// Access lists of one address family, by name, as the configuration
// publishes them: ordered permit / deny rules on group prefixes.
//
// A group belongs to a list when the first rule whose prefix holds it is a
// permit. A deny therefore only takes groups out of later, wider permits
// ("deny 239.1.1.0/24, permit 239.1.0.0/16" is 239.1.0.0/16 less the /24);
// a deny after a permit that covers it changes nothing, and a group that no
// rule holds is not in the list. Rules of the other family are ignored.

#include <string>
#include <vector>

#include "cask/collection.h"
#include "wirl/address_range_set.h"
#include "wirl/ip_gen_prefix.h"

namespace Acl {

struct AclRule {
    bool permit = true;
    Wirl::IpGenPrefix group;
    bool operator==(const AclRule&) const = default;
};

struct AccessList {
    std::vector<AclRule> rule;  // in sequence order
    bool operator==(const AccessList&) const = default;

    // The groups of `family` the list permits (see above).
    Wirl::AddressRangeSet permittedGroups(Wirl::AddressFamily family) const {
        Wirl::AddressRangeSet set(family);
        // Walking from the last rule back, each rule overrides what later
        // rules decided for its prefix: the first match wins.
        for (auto it = rule.rbegin(); it != rule.rend(); ++it) {
            if (it->group.family() != family) continue;
            if (it->permit) {
                set.add(it->group);
            } else {
                set.remove(it->group);
            }
        }
        return set;
    }
};

class AclConfig : public Cask::Record<AclConfig> {
public:
    class Notifiee : public Cask::NotifieeOf<AclConfig> {
    public:
        using NotifieeOf::NotifieeOf;
        virtual void handleAcl(const std::string&) {}
    };
    // Access-list name -> its rules; replacing a list with an equal one
    // announces nothing.
    CASK_VALUE_MAP(acl, Acl, std::string, AccessList)

private:
    Cask::ValueMap<std::string, AccessList> acl_;
};

}  // namespace Acl
