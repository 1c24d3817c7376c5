/* Steering of the virtual Nikon camera: what a test does with its hands.
 *
 * The driver module (VirtualNikon.md3) answers MAIDEntryPoint like a camera's driver; with the
 * functions here a test chooses what camera it is, presses its buttons, pulls its cable, makes it
 * misbehave, and reads afterwards what the application did. All of them are plain C and easy to
 * reach with ctypes. Every setting is also a line of text, so that a text file named by the
 * environment variable LUMATIE_VIRTUAL_NIKON does the same without a compiler; the settings are
 * listed in docs/virtual-nikon.md.
 *
 * The state lives as long as the library is loaded: a test that steers an application which loads
 * and frees it holds a handle of its own on the same path.
 *
 * Words used below:
 *   camera     the number of a camera, 0 for the first. Numbers are not given again until a reset.
 *   capability its id, e.g. 0x8112.
 *   level      1 module, 2 source, 3 item, 4 data.
 *   command    "Async", "Open", "Close", "GetCapCount", "GetCapInfo", "CapStart", "CapSet",
 *              "CapGet", "CapGetArray", "EnumChildren".
 *   answer     unless noted, 1 for done and 0 for refused (no such camera, bad text, ...);
 *              VirtualNikonLastError says why.
 *   text out   `buffer` gets the text, cut to `capacity` bytes and always terminated; the result is
 *              the length of the whole text without terminator. NULL and 0 ask for the length.
 *   wait       waits with a deadline in milliseconds: 1 when it came true, 0 when time ran out.
 *
 * Every function may be called from any thread at any time, also from inside a procedure that the
 * module calls (the waits excepted). None of them counts as a command of the application.
 */
#ifndef VIRTUAL_NIKON_H
#define VIRTUAL_NIKON_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): C includes this too */

#ifdef __cplusplus
extern "C" {
#endif

/* Settings. */

/* Back to the factory: one camera, "Virtual NIKON", id 1, plugged in, dial on M, no pictures; no
 * faults, no event rules, no untruths; log, counts, misuse and pictures empty; hanging commands are
 * let go, pending ones complete at the next occasion. While the application has a source open, the
 * cameras stay as they are, and everything else is reset. */
void VirtualNikonReset(void);

/* Applies settings, one "key = value" a line, "#" starts a comment line, "[camera 1]" says which
 * camera the camera's own settings below it are for (0 at the start of each text; the next free
 * number adds a camera). Lines before a bad one stay applied. Answers 0, or the number of the first
 * bad line counted from 1. */
int VirtualNikonConfigure(const char* text);

/* Text out: every setting with its value now. */
int VirtualNikonSettings(char* buffer, int capacity);

/* Text out: why the last refused function of this interface was refused. */
int VirtualNikonLastError(char* buffer, int capacity);

/* Cameras. */

/* Adds a camera, plugged in, with factory settings and this source id. Answers its number. */
int VirtualNikonAdd(const char* name, uint32_t id);

/* Unplugs the camera and forgets it. */
int VirtualNikonRemove(int camera);

/* How many numbers of cameras were given out since the last reset, removed ones included. */
int VirtualNikonCount(void);

/* Pulls the cable: the source leaves the module's children, a remove-child event tells of it, and
 * every command on it and below answers -10 (setting "gone.code"), except leaving: closing, taking
 * procedures away, running pending work. Objects of that time stay dead after VirtualNikonPlug. */
int VirtualNikonUnplug(int camera);

/* Puts the cable back in; an add-child event tells of it. */
int VirtualNikonPlug(int camera);

/* 1 while the application has the camera's source open. */
int VirtualNikonSourceOpen(int camera);

/* Presses the shutter button on the body: a picture that the host did not ask for. Refused while an
 * exposure runs or the cable is out. Does not wait for the picture. */
int VirtualNikonPressShutter(int camera);

/* Turns the mode dial: 0 P, 1 A, 2 S, 3 M, 5 and more automatic. Values, lists and what may be set
 * change with it and are announced. */
int VirtualNikonTurnDial(int camera, uint32_t mode);

/* Capabilities. */

/* Moves an enumeration to a position counted from 0, or gives a number a value, as on the body. */
int VirtualNikonSetValue(int camera, uint32_t capability, uint32_t value);

/* The position of an enumeration, or the number; -1 when there is none. */
int64_t VirtualNikonValue(int camera, uint32_t capability);

/* Text out: the text at an enumeration's current position. */
int VirtualNikonValueText(int camera, uint32_t capability, char* buffer, int capacity);

/* Replaces an enumeration's texts, one a line; "" leaves none, NULL gives the list back. */
int VirtualNikonSetTexts(int camera, uint32_t capability, const char* lines);

/* Text out: an enumeration's texts or numbers, one a line. */
int VirtualNikonTexts(int camera, uint32_t capability, char* buffer, int capacity);

/* What may be done with a capability: bits 1 start, 2 read, 4 set, 8 read the array; -1 when there
 * is none. */
int VirtualNikonOperations(int camera, uint32_t capability);

/* Makes all objects of a level tell an untruth about a capability; 0xFFFFFFFF stands for the set of
 * descriptors as a whole. `what`, with what the value then is:
 *   "count"         elements of an enumeration (bytes for texts); number of descriptors. The
 *                   array is filled to that length with the true content over and over.
 *   "element_type", "element_size", "value" (the current position, or the number)
 *   "open_texts"    1 the last text has no end, 2 no text has one
 *   "type", "operations", "absent" (1: no such capability), "unterminated" (1: the description)
 * Those of the last line are announced with event 4 to open objects of the level. The true
 * lengths of the application's buffers are respected whatever is told. */
int VirtualNikonCorrupt(int level, uint32_t capability, const char* what, int64_t value);

/* Another description for a capability; NULL gives the true one back. Announced with event 4. */
int VirtualNikonSetDescription(int level, uint32_t capability, const char* text);

/* Takes all untruths back, those about transfers included. */
void VirtualNikonClearCorruption(void);

/* Faults. */

/* Makes commands misbehave. The rule is the command's name ("Command": all but "Async", "*": all)
 * and then any of:
 *   code=-124           answer this; the command does nothing else, but it completes with the code
 *   after               with code: the command does its work first and then answers the code
 *   delay_ms=200        take that long first
 *   hang                stop until VirtualNikonReleaseHangs (or reset)
 *   unplug              the camera's cable is pulled at this command
 *   completion=-5       complete with this result, whatever was answered
 *   complete_calls=3    complete inside the third call to run pending work from here on
 *   complete_ms=100     complete not before that time, inside a call to run pending work
 *   complete_thread     complete on a thread of the library (after complete_ms)
 *   at_once             complete inside the command, whatever the settings say
 *   never               do not complete, until VirtualNikonReleaseCompletions
 *   twice               complete twice
 *   late_data           do the work (and write the application's buffers) when it completes
 *   calls=3             for this many matching commands (1 when not given, 0 for every one)
 *   skip=2              let this many matching commands pass first
 *   capability=0x8112   only for this capability
 *   level=source        only for objects of this level
 *   object=1            only for objects of this id
 * Completions of captures and acquisitions count from the end of their work. Of several rules for
 * one command the first given one that matches applies. */
int VirtualNikonFault(const char* rule);

/* Short for a rule with a code: the next `calls` calls of the command answer `code`. */
int VirtualNikonFailNext(const char* command, int32_t code, int calls);

/* Makes events misbehave. The rule is the event's code ("*" for every event) and then any of:
 *   lose, double, delay_ms=100, calls=, skip= and property=0x8112 (of event 6). */
int VirtualNikonEventRule(const char* rule);

/* Forgets all faults and event rules. Commands that hang go on hanging. */
void VirtualNikonClearFaults(void);

/* Lets every hanging command go on; answers how many there were. */
int VirtualNikonReleaseHangs(void);

/* Waits until a command of this name ("*": any) hangs. */
int VirtualNikonWaitForHang(const char* command, int timeoutMs);

/* How many commands have not completed. */
int VirtualNikonPending(void);

/* Lets the completions that never come do so, at the next occasion; answers how many. */
int VirtualNikonReleaseCompletions(void);

/* Events. */

/* Raises any event for the open object of this level and id (0: the first one), with any parameter.
 * It is delivered like the camera's own. Refused when no such object is open. */
int VirtualNikonSendEvent(int level, uint32_t object, uint32_t event, uint64_t parameter);

/* The same with `reference` in place of the one that the event procedure was installed with. */
int VirtualNikonSendStrayEvent(int level, uint32_t object, uint32_t event, uint64_t parameter,
                               void* reference);

/* How many events of this code were delivered since the last reset; -1: of all codes. */
int VirtualNikonEventCount(int event);

/* Waits until at least `count` events of this code (-1: any) were delivered. */
int VirtualNikonWaitForEvents(int event, int count, int timeoutMs);

/* What the application did. */

/* How many commands of this name ("*": of all) were answered since the last reset. */
int VirtualNikonCallCount(const char* command);

/* Waits until at least `count` commands of this name were answered since the last reset. */
int VirtualNikonWaitForCalls(const char* command, int count, int timeoutMs);

/* Waits until nothing is under way: no command inside, none that has still to complete, no
 * exposure, no event waiting. Pictures that wait to be fetched do not count. */
int VirtualNikonWaitUntilIdle(int timeoutMs);

/* Text out: the call log, a line for each answered command, completion that came later, event and
 * part of a picture, e.g.
 *   12 0.004211 T2 CapGet(source#1, 0x8112) = 0 0.003 ms
 * : running number, seconds since the library was loaded, thread (T1 is the first that called, E
 * the library's own), what, result, time taken. The last 10,000 lines are kept ("log.lines"). */
int VirtualNikonLog(char* buffer, int capacity);

/* Microseconds since the library was loaded: what the call log's clock shows now. */
int64_t VirtualNikonClock(void);

/* Empties the log; counts stay. */
void VirtualNikonClearLog(void);

/* How often the application broke the rules of the interface since the last reset. */
int VirtualNikonMisuseCount(void);

/* Text out: the misuses, a line each, e.g. "CapGet: closed object". */
int VirtualNikonMisuse(char* buffer, int capacity);

/* Forgets the misuses. */
void VirtualNikonClearMisuse(void);

/* How many objects of a level the application has open; 0 counts all. */
int VirtualNikonOpenCount(int level);

/* Text out: the open objects in the order they were opened, with the numbers of the procedures that
 * are installed, a line each, e.g. "source#1 2 3". */
int VirtualNikonOpenObjects(char* buffer, int capacity);

/* Closes all objects as if the library was unloaded and loaded again, with nothing completing;
 * answers how many there were. For the test after one that left some open. */
int VirtualNikonForgetObjects(void);

/* Pictures. */

/* Puts an item with this content on a camera and announces it. `dataTypes` has bits 1 image, 4
 * movie, 8 thumbnail. `fileType` is 1 JPEG, 2 TIFF, 4 NEF, 257 NDF or any other number, or -1 for
 * rows of an image, `rowBytes` long (the content is cut to whole rows). Answers the number of the
 * picture in the list, or -1. */
int VirtualNikonAddItem(int camera, uint32_t dataTypes, int fileType, uint32_t rowBytes,
                        const void* bytes, int64_t size);

/* Takes picture `picture` off its camera, as if it was erased there: a remove-child event tells of
 * it, commands on its objects answer -10, a running transfer ends. */
int VirtualNikonRemoveItem(int picture);

/* How many items a camera lists, -1 when there is no such camera. */
int VirtualNikonItemCount(int camera);

/* How many pictures were made since the last reset (RAW + JPEG makes two of one shot). */
int VirtualNikonPictureCount(void);

/* Waits until at least `count` pictures were made. */
int VirtualNikonWaitForPictures(int count, int timeoutMs);

/* Waits until at least `count` pictures were taken over whole. */
int VirtualNikonWaitForDelivered(int count, int timeoutMs);

/* Text out: a line for each picture, e.g.
 *   shot=1 camera=0 origin=host name=DSC_0001.JPG type=1 size=48211 listed=0 announced=1 opened=1
 *   started=1 delivered=1
 * (in one line). */
int VirtualNikonPictureList(char* buffer, int capacity);

/* One field of picture `picture` (counted from 0):
 *   "shot"        number of the shot, counted from 1 for each camera
 *   "camera"      number of the camera
 *   "origin"      0 asked for by the host, 1 button on the body, 2 put there by a test
 *   "type"        as in VirtualNikonAddItem
 *   "size"        bytes;  "rows", "row_bytes" of an image in rows
 *   "listed"      1 while the camera lists it
 *   "announced"   events that told of it
 *   "opened"      how often its item was opened
 *   "started"     how often a transfer began
 *   "delivered"   how often the application took it over whole
 * -1 for another picture or field. */
int64_t VirtualNikonPictureValue(int picture, const char* field);

/* Text out: the picture's name on the camera. */
int VirtualNikonPictureName(int picture, char* buffer, int capacity);

/* Copies the picture's bytes, up to `capacity`; answers its size, or -1 when there is no such
 * picture or its bytes are not kept any more (setting "picture.keep"). */
int64_t VirtualNikonPictureBytes(int picture, void* buffer, int64_t capacity);

#ifdef __cplusplus
}
#endif

#endif
