/* What a virtual Nikon camera can be told besides what VirtualCamera.h declares; the words are
 * explained there, and these:
 *   capability its id, e.g. 0x8112.
 *   level      1 module, 2 source, 3 item, 4 data.
 *
 * The library is VirtualNikon.md3, and its text file is named by LUMATIE_VIRTUAL_NIKON.
 *
 * Rules of VirtualCameraFault take "Command" for all commands but "Async", too. They may also say:
 *   completion=-5       complete with this result, whatever was answered
 *   complete_calls=3    complete inside the third call to run pending work from here on
 *   complete_ms=100     complete not before that time, inside a call to run pending work
 *   complete_thread     complete on a thread of the library (after complete_ms)
 *   at_once             complete inside the command, whatever the settings say
 *   never               do not complete, until VirtualNikonReleaseCompletions
 *   twice               complete twice
 *   late_data           do the work (and write the application's buffers) when it completes
 *   capability=0x8112   only for this capability
 *   level=source        only for objects of this level
 *   object=1            only for objects of this id
 * A command that a code refuses completes with the code. Completions of captures and acquisitions
 * count from the end of their work.
 *
 * Fields of VirtualCameraPictureValue:
 *   "type"        as in VirtualNikonAddItem
 *   "rows", "row_bytes" of an image in rows
 *   "listed"      1 while the camera lists it
 *   "opened"      how often its item was opened
 *   "started"     how often a transfer began
 *   "delivered"   how often the application took it over whole
 */
#ifndef VIRTUAL_NIKON_H
#define VIRTUAL_NIKON_H

#include "VirtualCamera.h"

#ifdef __cplusplus
extern "C" {
#endif

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

/* Makes all objects of a level tell something corrupt about a capability; 0xFFFFFFFF stands for the
 * set of descriptors as a whole. `what`, with what the value then is:
 *   "count"         elements of an enumeration (bytes for texts); number of descriptors. The array
 *                   is filled to that length with the true content over and over.
 *   "element_type", "element_size", "value" (the current position, or the number)
 *   "open_texts"    1 the last text has no end, 2 no text has one
 *   "type", "operations", "absent" (1: no such capability), "unterminated" (1: the description)
 * Those of the last line are announced with event 4 to open objects of the level. The true lengths
 * of the application's buffers are respected whatever is told. */
int VirtualNikonCorrupt(int level, uint32_t capability, const char* what, int64_t value);

/* Another description for a capability; NULL gives the true one back. Announced with event 4. */
int VirtualNikonSetDescription(int level, uint32_t capability, const char* text);

/* Takes all corruption back, that of transfers included. */
void VirtualNikonClearCorruption(void);

/* Completions. */

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

/* What the application has open. */

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

/* Waits until at least `count` pictures were taken over whole. */
int VirtualNikonWaitForDelivered(int count, int timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
