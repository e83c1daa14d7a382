#include "pimsm/route/route_types.h"

namespace Routing::Pim::SparseMode {

const char* enumName(JoinState s) {
    switch (s) {
        case JoinState::noInfo:
            return "noInfo";
        case JoinState::joined:
            return "joined";
        case JoinState::prunePending:
            return "prunePending";
    }
    return "?";
}

const char* enumName(RptState s) {
    switch (s) {
        case RptState::rptNoInfo:
            return "rptNoInfo";
        case RptState::rptPruned:
            return "rptPruned";
        case RptState::rptPrunePending:
            return "rptPrunePending";
        case RptState::rptPruneTmp:
            return "rptPruneTmp";
        case RptState::rptPrunePendingTmp:
            return "rptPrunePendingTmp";
    }
    return "?";
}

const char* enumName(UpJoinState s) {
    return s == UpJoinState::upJoined ? "upJoined" : "upNotJoined";
}

const char* enumName(UpRptState s) {
    switch (s) {
        case UpRptState::upRptNotJoined:
            return "upRptNotJoined";
        case UpRptState::upRptPruned:
            return "upRptPruned";
        case UpRptState::upRptNotPruned:
            return "upRptNotPruned";
    }
    return "?";
}

const char* enumName(AssertState s) {
    switch (s) {
        case AssertState::assertNoInfo:
            return "assertNoInfo";
        case AssertState::iAmAssertWinner:
            return "iAmAssertWinner";
        case AssertState::iAmAssertLoser:
            return "iAmAssertLoser";
    }
    return "?";
}

const char* enumName(IifSwitchState s) {
    switch (s) {
        case IifSwitchState::iifSwitchIdle:
            return "iifSwitchIdle";
        case IifSwitchState::iifSwitchPending:
            return "iifSwitchPending";
        case IifSwitchState::iifSwitchWaitHw:
            return "iifSwitchWaitHw";
    }
    return "?";
}

}  // namespace Routing::Pim::SparseMode
