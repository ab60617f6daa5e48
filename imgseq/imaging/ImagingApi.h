// The C interface of libImportImaging.so, the still-image reader and resizer that the image
// fitting loads on first use. Plain C so that the library and the module only share this
// header; no allocation crosses it: the caller hands out every pixel buffer, and nothing the
// library throws leaves it.
//
// Pixels are 8-bit B, G, R, A in that byte order, rows top first.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZUB_IMAGING_API_VERSION 3u
#define ZUB_IMAGING_ENTRY "ZubImagingGetApi"

// Resize filters, numbered as the fitting asks for them.
#define ZUB_IMAGING_FILTER_NEAREST 1
#define ZUB_IMAGING_FILTER_BILINEAR 2
#define ZUB_IMAGING_FILTER_BICUBIC 3

// Called once the image size is known; returns a buffer of height rows of width * 4 bytes,
// or null to stop the decode (out of memory).
typedef uint8_t* (*ZubImagingAllocFn)(void* context, int32_t width, int32_t height);

// Called once the picture's size is known: sets the size the picture is to be resized to and
// the filter for it (ignored when the size stays), and returns a buffer of *outHeight rows of
// *outWidth * 4 bytes, or null to stop the decode (out of memory).
typedef uint8_t* (*ZubImagingScaleFn)(void* context, int32_t width, int32_t height, int32_t* outWidth,
                                      int32_t* outHeight, int32_t* filter);

typedef struct ZubImagingApi {
    uint32_t version;  // ZUB_IMAGING_API_VERSION
    // Decodes the whole file held in data/size; `path` names it in messages and, for readers
    // that cannot read from memory, is opened instead. The reader follows the extension.
    // Returns 1 on success; 0 with a message in `error` otherwise.
    int (*decode)(const char* path, const uint8_t* data, size_t size, ZubImagingAllocFn alloc, void* context,
                  char* error, size_t errorSize);
    // Resizes src into dst with one of the filters above. Returns 1 on success; 0 with a message.
    int (*resize)(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride, uint8_t* dst,
                  int32_t dstWidth, int32_t dstHeight, int32_t dstStride, int32_t filter, char* error,
                  size_t errorSize);
    // What the file's header says, without decoding the pixels: width, height, channels and
    // bits per channel as stored. Readers that cannot tell leave channels and bits 0.
    // Returns 1 on success; 0 with a message.
    int (*describe)(const char* path, const uint8_t* data, size_t size, int32_t* width, int32_t* height,
                    int32_t* channels, int32_t* bitsPerChannel, char* error, size_t errorSize);
    // Decodes as `decode` does and resizes the picture, as `resize` would, to the size `target`
    // picks, into the buffer it gives. A reader that can decode at a reduced size does so when
    // that size is still at least the target's on both sides and the filter is not nearest.
    // Returns 1 on success; 0 with a message naming the file.
    int (*decodeScaled)(const char* path, const uint8_t* data, size_t size, ZubImagingScaleFn target, void* context,
                        char* error, size_t errorSize);
} ZubImagingApi;

typedef const ZubImagingApi* (*ZubImagingGetApiFn)(void);

#ifdef __cplusplus
}
#endif
