#include "media/wayland_outputs.hpp"

#include "media/c_boundary.hpp"

#include "xdg-output-unstable-v1-client-protocol.h"

#include <wayland-client.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace orbweave::obs {

namespace {

struct output_record {
    wl_output* output = nullptr;
    zxdg_output_v1* details = nullptr;
    wayland_output read;
};

struct registry_state {
    zxdg_output_manager_v1* manager = nullptr;
    std::vector<std::unique_ptr<output_record>> outputs;
};

const zxdg_output_v1_listener details_listener = {
    [](void* data, zxdg_output_v1*, int32_t x, int32_t y) {
        auto* out = static_cast<output_record*>(data);
        out->read.left = x;
        out->read.top = y;
    },
    [](void* data, zxdg_output_v1*, int32_t width, int32_t height) {
        auto* out = static_cast<output_record*>(data);
        out->read.width = width;
        out->read.height = height;
    },
    [](void*, zxdg_output_v1*) {},
    [](void* data, zxdg_output_v1*, const char* name) {
        guarded("the xdg-output name event", [&] { static_cast<output_record*>(data)->read.name = name; });
    },
    [](void* data, zxdg_output_v1*, const char* description) {
        guarded("the xdg-output description event",
                [&] { static_cast<output_record*>(data)->read.description = description; });
    },
};

void note_global(registry_state& state, wl_registry* registry, uint32_t id, const char* interface, uint32_t version)
{
    if (std::string(interface) == wl_output_interface.name) {
        auto record = std::make_unique<output_record>();
        record->output = static_cast<wl_output*>(wl_registry_bind(registry, id, &wl_output_interface, 1));
        state.outputs.push_back(std::move(record));
    } else if (std::string(interface) == zxdg_output_manager_v1_interface.name) {
        // Version 2 brings the output's name and description.
        state.manager = static_cast<zxdg_output_manager_v1*>(
            wl_registry_bind(registry, id, &zxdg_output_manager_v1_interface, std::min(version, 3u)));
    }
}

const wl_registry_listener registry_listener = {
    [](void* data, wl_registry* registry, uint32_t id, const char* interface, uint32_t version) {
        guarded("the Wayland registry's global event",
                [&] { note_global(*static_cast<registry_state*>(data), registry, id, interface, version); });
    },
    [](void*, wl_registry*, uint32_t) {},
};

} // namespace

std::vector<wayland_output> list_wayland_outputs()
{
    std::unique_ptr<wl_display, void (*)(wl_display*)> display(wl_display_connect(nullptr), wl_display_disconnect);
    if (!display)
        throw std::runtime_error("cannot connect to the Wayland display");
    registry_state state;
    wl_registry* registry = wl_display_get_registry(display.get());
    wl_registry_add_listener(registry, &registry_listener, &state);
    wl_display_roundtrip(display.get());

    std::vector<wayland_output> outputs;
    if (state.manager) {
        for (auto& record : state.outputs) {
            record->details = zxdg_output_manager_v1_get_xdg_output(state.manager, record->output);
            zxdg_output_v1_add_listener(record->details, &details_listener, record.get());
        }
        wl_display_roundtrip(display.get());
        for (auto& record : state.outputs)
            outputs.push_back(record->read);
    }

    for (auto& record : state.outputs) {
        if (record->details)
            zxdg_output_v1_destroy(record->details);
        wl_output_destroy(record->output);
    }
    bool had_manager = state.manager != nullptr;
    if (state.manager)
        zxdg_output_manager_v1_destroy(state.manager);
    wl_registry_destroy(registry);
    if (!had_manager)
        throw std::runtime_error("the compositor does not describe its outputs (no xdg-output)");
    return outputs;
}

} // namespace orbweave::obs
