// orvajson: one JSON line per buffer, the region-of-interest metas written like the lines of
// `orva detect`, to a file or to the bus as element messages.
#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

#define GST_TYPE_ORVA_JSON (gst_orva_json_get_type())
G_DECLARE_FINAL_TYPE(GstOrvaJson, gst_orva_json, GST, ORVA_JSON, GstBaseTransform)

G_END_DECLS
