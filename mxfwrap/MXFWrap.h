// libMXFWrap.so: turns an MXF file (OP1a or OP-Atom) into a file the converter reads, by
// copying its video and audio packets unchanged into a Matroska file in the temporary folder.
// Loaded with dlopen by the batch import for each .mxf row; plain C entry points.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// `path` holds the MXF file's name on entry (NUL-terminated, in a buffer of `capacity` bytes)
// and the unwrapped file's name on success. Returns non-zero on success; on failure the
// buffer is unchanged, no file is left behind and G_MXFUnwrapError() says why. The source
// is only read. The copy keeps the source's name, in a folder of its own
// ("clip.MXF" -> "$TMPDIR/mxfunwrap-XXXXXX/clip.mkv"), since the converter names the clip
// after the file it reads; the caller removes the file and that folder when it is done.
// `parentWindow` is accepted for hosts that pass their window; nothing is shown.
int G_LaunchMXFUnwrap(void* parentWindow, char* path, size_t capacity);

// The calling thread's last failure ("clip.mxf: not an MXF file (it is wav)"), "" when none.
const char* G_MXFUnwrapError(void);

typedef int (*G_LaunchMXFUnwrapFn)(void*, char*, size_t);
typedef const char* (*G_MXFUnwrapErrorFn)(void);

#ifdef __cplusplus
}
#endif
