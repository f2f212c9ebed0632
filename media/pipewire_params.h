/* The SPA parameters a screen cast's capture offers its PipeWire stream, built in C: the
 * SPA builder macros rely on C99 compound literals. */
#pragma once

#include <spa/pod/pod.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The raw video formats accepted (BGRx, BGRA, RGBx, RGBA), any size and rate. */
const struct spa_pod* orbweave_video_format_param(uint8_t* buffer, size_t size);
/* Buffers in shared memory only (memfd or mapped pointers), no DMA-BUF. */
const struct spa_pod* orbweave_shared_memory_buffers_param(uint8_t* buffer, size_t size);
/* Buffers that carry the producer's crop region (the part of the frame that shows the
 * capture: a window cast draws its window into a larger frame). */
const struct spa_pod* orbweave_crop_meta_param(uint8_t* buffer, size_t size);
/* Buffers that carry the producer's damage: the regions of the frame that changed since
 * its previous one (up to 16; the array ends at a region of no size). */
const struct spa_pod* orbweave_damage_meta_param(uint8_t* buffer, size_t size);

#ifdef __cplusplus
}
#endif
