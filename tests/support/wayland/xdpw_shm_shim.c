/* Test-only: built for the headless Wayland fixture, never installed or shipped. */
/* LD_PRELOAD shim for xdg-desktop-portal-wlr 0.7.0 (Debian bookworm).
 *
 * Problem: xdpw 0.7.0 start_screencast() refuses to start unless the
 * compositor sent a zwlr_screencopy_frame_v1.linux_dmabuf event
 * ("wlroots: unable to receive a valid format from wlr_screencopy"), because it
 * compares its own portal interface version (4) instead of the screencopy
 * protocol version. wlroots' pixman renderer (no GPU) never sends that event.
 *
 * Fix: wrap the frame listener; after each `buffer` (SHM) event, also deliver a
 * synthetic `linux_dmabuf` event with the same format/size. Without a
 * zwp_linux_dmabuf_v1 global xdpw has no modifiers/gbm, so build_formats()
 * still offers only the SHM (memfd) format to PipeWire.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <string.h>

struct wl_proxy;
const char *wl_proxy_get_class(struct wl_proxy *proxy);

struct frame_listener { /* zwlr_screencopy_frame_v1_listener, version 3 layout */
	void (*buffer)(void *, void *, uint32_t, uint32_t, uint32_t, uint32_t);
	void (*flags)(void *, void *, uint32_t);
	void (*ready)(void *, void *, uint32_t, uint32_t, uint32_t);
	void (*failed)(void *, void *);
	void (*damage)(void *, void *, uint32_t, uint32_t, uint32_t, uint32_t);
	void (*linux_dmabuf)(void *, void *, uint32_t, uint32_t, uint32_t);
	void (*buffer_done)(void *, void *);
};

static const struct frame_listener *orig;
static struct frame_listener wrapped;

static uint32_t shm_to_drm(uint32_t f) {
	if (f == 0) return 0x34325241; /* WL_SHM_FORMAT_ARGB8888 -> DRM 'AR24' */
	if (f == 1) return 0x34325258; /* WL_SHM_FORMAT_XRGB8888 -> DRM 'XR24' */
	return f;                      /* other wl_shm codes equal DRM fourccs */
}

static void buffer_wrap(void *data, void *frame, uint32_t fmt, uint32_t w,
		uint32_t h, uint32_t stride) {
	orig->buffer(data, frame, fmt, w, h, stride);
	if (orig->linux_dmabuf)
		orig->linux_dmabuf(data, frame, shm_to_drm(fmt), w, h);
}

int wl_proxy_add_listener(struct wl_proxy *proxy, void (**impl)(void), void *data) {
	static int (*real)(struct wl_proxy *, void (**)(void), void *);
	if (!real)
		real = dlsym(RTLD_NEXT, "wl_proxy_add_listener");
	if (strcmp(wl_proxy_get_class(proxy), "zwlr_screencopy_frame_v1") == 0) {
		if (orig != (const struct frame_listener *)impl) {
			orig = (const struct frame_listener *)impl;
			wrapped = *orig;
			wrapped.buffer = buffer_wrap;
		}
		impl = (void (**)(void))&wrapped;
	}
	return real(proxy, impl, data);
}
