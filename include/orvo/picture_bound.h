#pragma once
// The largest picture a payload may declare. Every decoder refuses a header above it before
// any picture memory is allocated: a few header bytes must not make a client with 64 streams
// allocate gigabytes. 64 Mpixel (8192 x 8192) is above every camera sensor.
//
// Fuzz builds stop at 1 Mpixel, as FFmpeg's own decoder fuzzers do: hostile headers would
// otherwise spend the campaign allocating, concealing and converting huge empty pictures.
// The side bound stays, so that width and height checks keep their meaning there.
//
// Plain macros: the C interface of aj2k.h uses them too.

// Largest width and largest height.
#define ORVO_MAX_PICTURE_SIDE 8192

#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
#define ORVO_MAX_PICTURE_PIXELS (1024LL * 1024)
#else
#define ORVO_MAX_PICTURE_PIXELS ((long long)ORVO_MAX_PICTURE_SIDE * ORVO_MAX_PICTURE_SIDE)
#endif
