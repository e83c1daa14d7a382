#pragma once
// requireInputs: a machine's check, in its constructor, that the VRF context holds every
// record the machine cannot run without.
//
//     UpstreamSgSm::UpstreamSgSm(const VrfContext& ctx)
//         : in_(requireInputs(ctx, "UpstreamSgSm", &VrfContext::localStatus,
//                             &VrfContext::status, &VrfContext::pimStatus)) ...
//
// A missing input is a broken precondition of whoever built the context: the check fails
// with "<machine> created without its inputs (input N is null)", N counting the named
// inputs from 1, at the place of the call. Inputs a machine can do without are read where
// they are used, and say so in the machine's constructor comment.

#include <source_location>
#include <string>

#include "cask/assert.h"
#include "pimsm/common/vrf_context.h"

namespace Routing::Pim::SparseMode {

// The machine's name and the place of the check; made from the name at the call.
struct InputsOf {
    InputsOf(const char* machineName, std::source_location where = std::source_location::current())
        : machine(machineName), at(where) {}
    const char* machine;
    std::source_location at;
};

template <class... T>
const VrfContext& requireInputs(const VrfContext& ctx, InputsOf who, T VrfContext::*... inputs) {
    int n = 0;
    int missing = 0;
    ((++n, missing = (missing == 0 && !(ctx.*inputs)) ? n : missing), ...);
    if (missing != 0) [[unlikely]] {
        const std::string text = std::string(who.machine) + " created without its inputs (input " +
                                 std::to_string(missing) + " is null)";
        Cask::assertionFailed(text.c_str(), who.at.file_name(), int(who.at.line()));
    }
    return ctx;
}

}  // namespace Routing::Pim::SparseMode
