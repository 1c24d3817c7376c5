/* Steering of the virtual Canon camera: what a test does with its hands.
 *
 * The library (libEDSDK.so, EDSDK.dll) answers the Eds... functions like a camera; with the
 * functions here a test chooses what camera it is, presses its buttons, pulls its cable, makes it
 * misbehave, and reads afterwards what the application did. All of them are plain C and easy to
 * reach with ctypes. Every setting is also a line of text, so that a text file named by the
 * environment variable LUMATIE_VIRTUAL_CANON does the same without a compiler; the settings are
 * listed in docs/virtual-cameras.md.
 *
 * Words used below:
 *   camera     the number of a camera, 0 for the first. Numbers are not given again until a reset.
 *   answer     unless noted, 1 for done and 0 for refused (no such camera, bad text, ...);
 *              VirtualCameraLastError says why.
 *   text out   `buffer` gets the text, cut to `capacity` bytes and always terminated; the result is
 *              the length of the whole text without terminator. NULL and 0 ask for the length.
 *   wait       waits with a deadline in milliseconds: 1 when it came true, 0 when time ran out.
 *
 * Every function may be called from any thread at any time, also from inside an event handler
 * (the waits excepted: a handler that waits for its own end waits in vain). None of them counts as
 * a call of the application, and none of them is written to the call log.
 */
#ifndef VIRTUAL_CAMERA_H
#define VIRTUAL_CAMERA_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): C includes this too */

#ifdef __cplusplus
extern "C" {
#endif

/* Settings. */

/* Back to the factory: one camera, "Virtual EOS", sub-type 1, plugged in, dial on M; no faults, no
 * event rules; log, counts, misuse and pictures empty; hanging calls are let go; the environment's
 * text file is not read again. While the application holds a camera, the cameras stay as they are
 * (names, properties, sessions), and everything else is reset. */
void VirtualCameraReset(void);

/* Applies settings, one "key = value" a line, "#" starts a comment line, "[camera 1]" says which
 * camera the camera's own settings below it are for (0 at the start of each text; the next free
 * number adds a camera). Lines before a bad one stay applied. Answers 0, or the number of the first
 * bad line counted from 1. */
int VirtualCameraConfigure(const char* text);

/* Text out: every setting with its value now, in a form that VirtualCameraConfigure takes. */
int VirtualCameraSettings(char* buffer, int capacity);

/* Text out: why the last refused function of this interface was refused. */
int VirtualCameraLastError(char* buffer, int capacity);

/* Cameras. */

/* Adds a camera, plugged in, with factory settings. `name` is what the device information and
 * property 2 say (UTF-8 or any other bytes, up to 255); two cameras may have the same name.
 * Sub-type 0 is an older body. Answers the camera's number. */
int VirtualCameraAdd(const char* name, uint32_t subType);

/* Gives the camera a name of exactly these bytes, 0 to 256 of them. 256 bytes leave no room for a
 * terminator: the records then carry none. */
int VirtualCameraSetName(int camera, const void* bytes, int length);

/* Unplugs the camera and forgets it. */
int VirtualCameraRemove(int camera);

/* How many numbers of cameras were given out since the last reset, removed ones included. */
int VirtualCameraCount(void);

/* Pulls the cable: the camera leaves the list, its session is gone, a state event 0x301 is sent,
 * and every call on its references, running downloads included, answers 0x80 (setting
 * "unplug.code"). The references of that time stay dead after VirtualCameraPlug. */
int VirtualCameraUnplug(int camera);

/* Puts the cable back in: a new camera list shows the camera again. */
int VirtualCameraPlug(int camera);

/* 1: the camera falls asleep and answers every call 0x81 (setting "sleep.code"), 0: it wakes. */
int VirtualCameraSleep(int camera, int asleep);

/* 1 while a session is open with the camera. */
int VirtualCameraSessionOpen(int camera);

/* Presses the shutter button on the body, all the way, and lets it go: a picture that the host did
 * not ask for. Refused while an exposure runs, the camera is asleep or its buttons are locked by
 * status command 0. Does not wait for the picture. */
int VirtualCameraPressShutter(int camera);

/* Turns the mode dial, e.g. to 2 for Av: values and lists that depend on it change and are
 * announced. */
int VirtualCameraTurnDial(int camera, uint32_t mode);

/* Properties. */

/* Changes a 32-bit setting on the body. Any value goes, allowed or not; a property that does not
 * exist yet is made (type 9). What changed is announced when a session is open. */
int VirtualCameraSetProperty(int camera, uint32_t property, uint32_t value);

/* The same for a property of any type and size; `data` is copied. A value without terminator is
 * what a text (type 2) holds as it was given. */
int VirtualCameraSetPropertyBytes(int camera, uint32_t property, uint32_t type, const void* data,
                                  int size);

/* Takes a property away: reading it answers 0x50 from now on. */
int VirtualCameraRemoveProperty(int camera, uint32_t property);

/* Replaces the list of allowed values, 0 to 128 of them, and announces it. A count of -1 gives the
 * list back to the camera. */
int VirtualCameraSetAllowed(int camera, uint32_t property, const int32_t* values, int count);

/* The first 32 bits of a property's value, unsigned; -1 when there is none. */
int64_t VirtualCameraProperty(int camera, uint32_t property);

/* Copies the value, up to `capacity` bytes; answers the value's size, -1 when there is none. */
int VirtualCameraPropertyBytes(int camera, uint32_t property, void* buffer, int capacity);

/* The allowed values now, up to `capacity` of them; answers their number, -1 without a list. */
int VirtualCameraAllowed(int camera, uint32_t property, int32_t* values, int capacity);

/* Faults. */

/* Makes calls misbehave. The rule is the function's name ("*" for every function) and then any of:
 *   code=0x81        answer this; the call does nothing else
 *   after            with code: the call does its work first and then answers the code
 *   delay_ms=200     take that long first
 *   hang             stop until VirtualCameraReleaseHangs (or reset, or EdsTerminateSDK)
 *   unplug           the camera's cable is pulled at this call
 *   calls=3          for this many matching calls (1 when not given, 0 for every one)
 *   skip=2           let this many matching calls pass first
 *   property=0x406   only for this property
 *   command=4        only for this command or status command
 *   parameter=3      only for this parameter (of properties and commands)
 *   percent=50       EdsDownload only: after this share of the file was written
 *   thread           only for calls on the library's own event thread
 * e.g. "EdsSendCommand code=0x60 command=4 parameter=3", "EdsDownload unplug percent=50".
 * Of several rules for one call the first given one that matches applies. */
int VirtualCameraFault(const char* rule);

/* Short for a rule with a code: the next `calls` calls of the function answer `code`. */
int VirtualCameraFailNext(const char* function, uint32_t code, int calls);

/* Makes events misbehave. The rule is the event's code ("*" for every event) and then any of:
 *   lose             it is never delivered (a reference that it carries is taken back)
 *   double           it is delivered twice (an object event with a reference of its own each)
 *   delay_ms=100     it comes that much later, after events that were raised after it
 *   calls=, skip=    as for faults
 *   property=0x406   only for events of this property
 * e.g. "0x208 lose", "0x101 property=0x406 delay_ms=100 calls=0". */
int VirtualCameraEventRule(const char* rule);

/* Forgets all faults and event rules. Calls that hang go on hanging. */
void VirtualCameraClearFaults(void);

/* Lets every hanging call go on; answers how many there were. */
int VirtualCameraReleaseHangs(void);

/* Waits until a call of the function ("*": any) hangs. */
int VirtualCameraWaitForHang(const char* function, int timeoutMs);

/* Events. */

/* Raises any property event, e.g. 0x101; delivered by the event thread like the camera's own. */
int VirtualCameraSendPropertyEvent(int camera, uint32_t event, uint32_t property,
                                   uint32_t parameter);

/* Raises any object event with any reference: NULL, one of VirtualCameraNewItem, or a stale one.
 * The reference goes to the handler as it is. */
int VirtualCameraSendObjectEvent(int camera, uint32_t event, void* reference);

/* Raises any state event, e.g. 0x301. */
int VirtualCameraSendStateEvent(int camera, uint32_t event, uint32_t parameter);

/* A fresh directory-item reference on file `file` of the picture list; -1 makes one on a folder.
 * The caller owns it (or gives it to a handler with an event). NULL when refused. */
void* VirtualCameraNewItem(int camera, int file);

/* How many events of this code handlers were called with since the last reset; 0: of all codes. */
int VirtualCameraEventCount(uint32_t event);

/* Waits until handlers were called at least `count` times with this code (0: with any). */
int VirtualCameraWaitForEvents(uint32_t event, int count, int timeoutMs);

/* What the application did. */

/* How many calls of the function ("*": of all) were answered since the last reset. */
int VirtualCameraCallCount(const char* function);

/* Waits until at least `count` calls of the function were answered since the last reset. */
int VirtualCameraWaitForCalls(const char* function, int count, int timeoutMs);

/* Waits until nothing is under way: no call, no exposure, no picture in the making, no event
 * waiting (late ones included), no handler running. */
int VirtualCameraWaitUntilIdle(int timeoutMs);

/* Text out: the call log, a line for each answered call and delivered event, e.g.
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

/* How many objects of a kind the application holds references on: "list", "camera", "item",
 * "stream", "image"; "" counts all. -1 for another kind. */
int VirtualCameraReferenceCount(const char* kind);

/* Pictures. */

/* The names of files to come: exactly these bytes, up to 256 (256: without terminator). The
 * extension is not added. A length of 0 goes back to IMG_0001.JPG and so on. */
int VirtualCameraSetPictureName(int camera, const void* bytes, int length);

/* How many picture files were made since the last reset (RAW+JPEG makes two of one shot). */
int VirtualCameraPictureCount(void);

/* Waits until at least `count` picture files were made. */
int VirtualCameraWaitForPictures(int count, int timeoutMs);

/* Text out: a line for each file, e.g.
 *   shot=1 camera=0 origin=host name=IMG_0001.JPG size=48211 to_host=1 announced=1 downloaded=1
 *   complete=1
 * (in one line). */
int VirtualCameraPictureList(char* buffer, int capacity);

/* One field of file `file` (counted from 0):
 *   "shot"        number of the shot, counted from 1 for each camera
 *   "camera"      number of the camera
 *   "origin"      0 asked for by the host, 1 button on the body
 *   "size"        bytes
 *   "to_host"     1 for a picture for the host, 0 for one that stays on the camera
 *   "announced"   how often event 0x208 was delivered for it
 *   "downloaded"  how often EdsDownload brought it over whole
 *   "complete"    how often EdsDownloadComplete was answered 0
 * -1 for another file or field. */
int64_t VirtualCameraPictureValue(int file, const char* field);

/* Text out: the file's name on the camera. */
int VirtualCameraPictureName(int file, char* buffer, int capacity);

/* Copies the file's bytes, up to `capacity`; answers the file's size, or -1 when there is no such
 * file or its bytes are not kept any more (setting "picture.keep"). */
int64_t VirtualCameraPictureBytes(int file, void* buffer, int64_t capacity);

/* Copies the content of a memory stream, e.g. a live-view frame; answers its size, or -1. */
int64_t VirtualCameraStreamBytes(void* stream, void* buffer, int64_t capacity);

#ifdef __cplusplus
}
#endif

#endif
