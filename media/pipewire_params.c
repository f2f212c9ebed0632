#include "media/pipewire_params.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/format.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

const struct spa_pod* orbweave_video_format_param(uint8_t* buffer, size_t size)
{
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, size);
    struct spa_rectangle usual = SPA_RECTANGLE(1920, 1080);
    struct spa_rectangle smallest = SPA_RECTANGLE(1, 1);
    struct spa_rectangle largest = SPA_RECTANGLE(16384, 16384);
    struct spa_fraction rate = SPA_FRACTION(30, 1);
    struct spa_fraction slowest = SPA_FRACTION(0, 1);
    struct spa_fraction fastest = SPA_FRACTION(360, 1);
    return spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
        SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
        SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                               SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&usual, &smallest, &largest),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest));
}

const struct spa_pod* orbweave_shared_memory_buffers_param(uint8_t* buffer, size_t size)
{
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, size);
    return spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
        SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr)));
}

const struct spa_pod* orbweave_crop_meta_param(uint8_t* buffer, size_t size)
{
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, size);
    return spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                                      SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
                                      SPA_PARAM_META_size, SPA_POD_Int(sizeof(struct spa_meta_region)));
}

const struct spa_pod* orbweave_damage_meta_param(uint8_t* buffer, size_t size)
{
    struct spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, size);
    return spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoDamage),
        SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(sizeof(struct spa_meta_region) * 16, sizeof(struct spa_meta_region) * 1,
                                 sizeof(struct spa_meta_region) * 16));
}
