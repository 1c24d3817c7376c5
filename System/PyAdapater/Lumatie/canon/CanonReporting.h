// Turns what a camera model announces into the host's events.
#pragma once

class PyCallback;

namespace canon {

class CameraModel;
struct CameraEvent;

// Sends the callback event, if any, that belongs to `event` of `model`, after a line in the debug
// log. Called on the thread that notifies, which is the session's worker. The host's callable may
// delete `callback` during the call: it is not touched afterwards.
void reportToHost(PyCallback& callback, const CameraModel& model, const CameraEvent& event);

}  // namespace canon
