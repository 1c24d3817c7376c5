/* What a virtual Canon camera can be told besides what VirtualCamera.h declares; the words are
 * explained there.
 *
 * The library is libEDSDK.so or EDSDK.dll, and its text file is named by LUMATIE_VIRTUAL_CANON.
 *
 * Rules of VirtualCameraFault, e.g. "EdsSendCommand code=0x60 command=4 parameter=3" or
 * "EdsDownload unplug percent=50", may also say:
 *   property=0x406   only for this property
 *   command=4        only for this command or status command
 *   parameter=3      only for this parameter (of properties and commands)
 *   percent=50       EdsDownload only: after this share of the file was written
 *   thread           only for calls on the library's own event thread
 *
 * Fields of VirtualCameraPictureValue:
 *   "to_host"     1 for a picture for the host, 0 for one that stays on the camera
 *   "downloaded"  how often EdsDownload brought it over whole
 *   "complete"    how often EdsDownloadComplete was answered 0
 */
#ifndef VIRTUAL_CANON_H
#define VIRTUAL_CANON_H

#include "VirtualCamera.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Cameras. */

/* Gives the camera a name of exactly these bytes, 0 to 256 of them. 256 bytes leave no room for a
 * terminator: the records then carry none. */
int VirtualCanonSetName(int camera, const void* bytes, int length);

/* 1: the camera falls asleep and answers every call 0x81 (setting "sleep.code"), 0: it wakes. */
int VirtualCanonSleep(int camera, int asleep);

/* The names of files to come: exactly these bytes, up to 256 (256: without terminator). The
 * extension is not added. A length of 0 goes back to IMG_0001.JPG and so on. */
int VirtualCanonSetPictureName(int camera, const void* bytes, int length);

/* Properties. */

/* Changes a 32-bit setting on the body. Any value goes, allowed or not; a property that does not
 * exist yet is made (type 9). What changed is announced when a session is open. */
int VirtualCanonSetProperty(int camera, uint32_t property, uint32_t value);

/* The same for a property of any type and size; `data` is copied. A value without terminator is
 * what a text (type 2) holds as it was given. */
int VirtualCanonSetPropertyBytes(int camera, uint32_t property, uint32_t type, const void* data,
                                 int size);

/* Takes a property away: reading it answers 0x50 from now on. */
int VirtualCanonRemoveProperty(int camera, uint32_t property);

/* Replaces the list of allowed values, 0 to 128 of them, and announces it. A count of -1 gives the
 * list back to the camera. */
int VirtualCanonSetAllowed(int camera, uint32_t property, const int32_t* values, int count);

/* The first 32 bits of a property's value, unsigned; -1 when there is none. */
int64_t VirtualCanonProperty(int camera, uint32_t property);

/* Copies the value, up to `capacity` bytes; answers the value's size, -1 when there is none. */
int VirtualCanonPropertyBytes(int camera, uint32_t property, void* buffer, int capacity);

/* The allowed values now, up to `capacity` of them; answers their number, -1 without a list. */
int VirtualCanonAllowed(int camera, uint32_t property, int32_t* values, int capacity);

/* Events. */

/* Raises any property event, e.g. 0x101; delivered by the event thread like the camera's own. */
int VirtualCanonSendPropertyEvent(int camera, uint32_t event, uint32_t property,
                                  uint32_t parameter);

/* Raises any object event with any reference: NULL, one of VirtualCanonNewItem, or a stale one.
 * The reference goes to the handler as it is. */
int VirtualCanonSendObjectEvent(int camera, uint32_t event, void* reference);

/* Raises any state event, e.g. 0x301. */
int VirtualCanonSendStateEvent(int camera, uint32_t event, uint32_t parameter);

/* A fresh directory-item reference on file `file` of the picture list; -1 makes one on a folder.
 * The caller owns it (or gives it to a handler with an event). NULL when refused. */
void* VirtualCanonNewItem(int camera, int file);

/* What the application holds. */

/* How many objects of a kind the application holds references on: "list", "camera", "item",
 * "stream", "image"; "" counts all. -1 for another kind. */
int VirtualCanonReferenceCount(const char* kind);

/* Copies the content of a memory stream, e.g. a live-view frame; answers its size, or -1. */
int64_t VirtualCanonStreamBytes(void* stream, void* buffer, int64_t capacity);

#ifdef __cplusplus
}
#endif

#endif
