/* Steering of a virtual camera: what a test does with its hands.
 *
 * The library answers like a maker's (EDSDK like Canon's, VirtualNikon.md3 like one of Nikon's
 * drivers); with the functions here a test chooses what camera it is, presses its buttons, pulls
 * its cable, makes it misbehave, and reads afterwards what the application did. Both libraries
 * export all of them, each for its own cameras: look them up in the library that is meant, e.g.
 * with ctypes, and in a process with both never by name alone. VirtualCanon.h and VirtualNikon.h
 * declare what one maker's camera can be told besides. Every setting is also a line of text, so
 * that a text file named by an environment variable does the same without a compiler; the settings
 * are listed in docs/virtual-cameras.md.
 *
 * The state lives as long as the library is loaded: a test that steers an application which loads
 * and frees it holds a handle of its own on the same path.
 *
 * Words used below:
 *   camera     the number of a camera, 0 for the first. Numbers are not given again until a reset.
 *   call       the name of a function of Canon's, e.g. "EdsOpenSession", or of a command to Nikon's
 *              driver: "Async", "Open", "Close", "GetCapCount", "GetCapInfo", "CapStart", "CapSet",
 *              "CapGet", "CapGetArray", "EnumChildren". "*" stands for all of them.
 *   answer     unless noted, 1 for done and 0 for refused (no such camera, bad text, ...);
 *              VirtualCameraLastError says why.
 *   text out   `buffer` gets the text, cut to `capacity` bytes and always terminated; the result is
 *              the length of the whole text without terminator. NULL and 0 ask for the length.
 *   wait       waits with a deadline in milliseconds: 1 when it came true, 0 when time ran out.
 *
 * Every function may be called from any thread at any time, also from inside a procedure of the
 * application's that the library calls (the waits excepted: what waits for its own end waits in
 * vain). None of them counts as a call of the application, and none of them is written to the call
 * log.
 */
#ifndef VIRTUAL_CAMERA_H
#define VIRTUAL_CAMERA_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): C includes this too */

#ifdef __cplusplus
extern "C" {
#endif

/* Settings. */

/* Back to the factory: one camera, "Virtual EOS" or "Virtual NIKON", plugged in, dial on M; no
 * faults, no event rules, no corruption; log, counts, misuse and pictures empty; hanging calls are
 * let go, Nikon's pending commands complete at the next occasion; the environment's text file is
 * not read again. While the application holds a camera (of Canon) or has a source open (of Nikon),
 * the cameras stay as they are (names, settings, sessions), and everything else is reset. */
void VirtualCameraReset(void);

/* Applies settings, one "key = value" a line, "#" starts a comment line, "[camera 1]" says which
 * camera the camera's own settings below it are for (0 at the start of each text; the next free
 * number adds a camera). Lines before a bad one stay applied. Answers 0, or the number of the first
 * bad line counted from 1. */
int VirtualCameraConfigure(const char* text);

/* Text out: every setting with its value now, in a form that VirtualCameraConfigure takes. */
int VirtualCameraSettings(char* buffer, int capacity);

/* Text out: why the last refused function was refused. */
int VirtualCameraLastError(char* buffer, int capacity);

/* Cameras. */

/* Adds a camera, plugged in, with factory settings. `name` is what it calls itself (UTF-8 or any
 * other bytes, up to 255 with Canon); two cameras may have the same name. `id` is the sub-type with
 * Canon (0 is an older body) and the id of its source with Nikon. Answers the camera's number. */
int VirtualCameraAdd(const char* name, uint32_t id);

/* Unplugs the camera and forgets it. */
int VirtualCameraRemove(int camera);

/* How many numbers of cameras were given out since the last reset, removed ones included. */
int VirtualCameraCount(void);

/* Pulls the cable: the camera leaves the list, its session is gone, and the application is told.
 * Every call on its references or objects, running transfers included, answers the setting
 * "gone.code", but for those with which one leaves. What was handed out by then stays dead after
 * VirtualCameraPlug. */
int VirtualCameraUnplug(int camera);

/* Puts the cable back in: the camera is listed again (Nikon's application is told). */
int VirtualCameraPlug(int camera);

/* 1 while the application has a session open with the camera (with Nikon: its source). */
int VirtualCameraSessionOpen(int camera);

/* Presses the shutter button on the body, all the way, and lets it go: a picture that the host did
 * not ask for. Refused while an exposure runs or the camera is asleep, when Canon's host has locked
 * the buttons, and when Nikon's cable is out. Does not wait for the picture. */
int VirtualCameraPressShutter(int camera);

/* Ends the exposure that is kept open: with Canon in bulb mode by the host's button, or by the
 * setting "shutter.until_told". Refused when there is none. Does not wait for the picture. */
int VirtualCameraEndExposure(int camera);

/* Waits until an exposure runs on the camera. */
int VirtualCameraWaitForExposure(int camera, int timeoutMs);

/* Turns the mode dial, e.g. to 3 for M: values and lists that depend on it change and are
 * announced. Canon: 0 P, 1 Tv, 2 Av, 3 M, 4 Bulb. Nikon: 0 P, 1 A, 2 S, 3 M, 5 and more automatic.
 */
int VirtualCameraTurnDial(int camera, uint32_t mode);

/* Faults. */

/* Makes calls misbehave. The rule is a call and then any of:
 *   code=0x81        answer this; the call does nothing else
 *   after            with code: the call does its work first and then answers the code
 *   delay_ms=200     take that long first
 *   hang             stop until VirtualCameraReleaseHangs (or reset, or EdsTerminateSDK)
 *   unplug           the camera's cable is pulled at this call
 *   calls=3          for this many matching calls (1 when not given, 0 for every one)
 *   skip=2           let this many matching calls pass first
 * and what VirtualCanon.h and VirtualNikon.h list. Of several rules for one call the first given
 * one that matches applies. */
int VirtualCameraFault(const char* rule);

/* Short for a rule with a code: the next `calls` of the calls answer `code`. */
int VirtualCameraFailNext(const char* call, int64_t code, int calls);

/* Makes events misbehave. The rule is the event's code ("*" for every event) and then any of:
 *   lose             it is never delivered (a reference that it carries is taken back)
 *   double           it is delivered twice (Canon's object events with a reference of its own each)
 *   delay_ms=100     it comes that much later, after events that were raised after it
 *   calls=, skip=    as for faults
 *   property=0x406   only for events of this property or capability
 * e.g. "0x208 lose", "0x101 property=0x406 delay_ms=100 calls=0". */
int VirtualCameraEventRule(const char* rule);

/* Forgets all faults and event rules. Calls that hang go on hanging. */
void VirtualCameraClearFaults(void);

/* Lets every hanging call go on; answers how many there were. */
int VirtualCameraReleaseHangs(void);

/* Waits until such a call hangs. */
int VirtualCameraWaitForHang(const char* call, int timeoutMs);

/* What the application did. */

/* How many events of this code were delivered since the last reset; -1: of all codes. */
int VirtualCameraEventCount(int64_t event);

/* Waits until at least `count` events of this code (-1: any) were delivered. */
int VirtualCameraWaitForEvents(int64_t event, int count, int timeoutMs);

/* How many such calls were answered since the last reset. */
int VirtualCameraCallCount(const char* call);

/* Waits until at least `count` such calls were answered since the last reset. */
int VirtualCameraWaitForCalls(const char* call, int count, int timeoutMs);

/* Waits until nothing is under way: no call, nothing that has still to complete, no exposure, no
 * picture in the making, no event waiting (late ones included), no handler running. Pictures that
 * wait to be fetched do not count. */
int VirtualCameraWaitUntilIdle(int timeoutMs);

/* Text out: the call log, a line for each answered call, each event and each part of a picture,
 * e.g.
 *   12 0.004211 T2 EdsGetPropertyData(camera#2, 0x406, 0, 4) = 0x0 0.003 ms
 * : running number, seconds since the library was loaded, thread (T1 is the first that called, E
 * the library's own), call, result, time taken. The last 10,000 lines are kept (setting
 * "log.lines"). */
int VirtualCameraLog(char* buffer, int capacity);

/* Microseconds since the library was loaded: what the call log's clock shows now. */
int64_t VirtualCameraClock(void);

/* Empties the log; counts stay. */
void VirtualCameraClearLog(void);

/* How often the application broke the rules of the interface since the last reset. */
int VirtualCameraMisuseCount(void);

/* Text out: the misuses, a line each, e.g. "EdsRelease: stale reference camera#2". */
int VirtualCameraMisuse(char* buffer, int capacity);

/* Forgets the misuses. */
void VirtualCameraClearMisuse(void);

/* Pictures. */

/* How many pictures were made since the last reset (RAW + JPEG makes two of one shot). */
int VirtualCameraPictureCount(void);

/* Waits until at least `count` pictures were made. */
int VirtualCameraWaitForPictures(int count, int timeoutMs);

/* Text out: a line for each picture with its name and all fields, e.g.
 *   shot=1 camera=0 origin=host name=IMG_0001.JPG size=48211 announced=1 to_host=1 downloaded=1
 *   complete=1
 * (in one line). */
int VirtualCameraPictureList(char* buffer, int capacity);

/* One field of picture `picture` (counted from 0):
 *   "shot"        number of the shot, counted from 1 for each camera
 *   "camera"      number of the camera
 *   "origin"      0 asked for by the host, 1 button on the body, 2 put there by a test
 *   "size"        bytes
 *   "announced"   events that told the host of it
 * or one that VirtualCanon.h or VirtualNikon.h lists. -1 for another picture or field. */
int64_t VirtualCameraPictureValue(int picture, const char* field);

/* Text out: the picture's name on the camera. */
int VirtualCameraPictureName(int picture, char* buffer, int capacity);

/* Copies the picture's bytes, up to `capacity`; answers its size, or -1 when there is no such
 * picture or its bytes are not kept any more (setting "picture.keep"). */
int64_t VirtualCameraPictureBytes(int picture, void* buffer, int64_t capacity);

#ifdef __cplusplus
}
#endif

#endif
