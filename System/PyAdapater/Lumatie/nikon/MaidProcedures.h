// The procedures that a driver module calls back.
//
// Each gets a handle of an open object (see Handles.h); one that is not known any more is ignored.
// They run inside the entry point, on the thread of the command that let the module work, and
// issue commands of their own.
#pragma once

#include "nikon/Handles.h"
#include "nikon/MaidObjectRef.h"

namespace nikon {

// The open objects by the handles that the module has.
Handles<MaidObjectRef>& objectHandles();

// The event procedure for an object of that level (kMaidLevel...); null for any other level.
MaidEventProcedure eventProcedure(std::uint32_t level);

// Draws the progress of a command; it has no effect on the host.
void MAIDAPI showProgress(std::uint32_t command, std::uint32_t parameter, MaidReference reference,
                          std::uint32_t done, std::uint32_t total);

// Answers every question with 0.
std::uint32_t MAIDAPI answerUser(MaidReference reference, void* request);

}  // namespace nikon
