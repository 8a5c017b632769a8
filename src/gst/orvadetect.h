// orvadetect: objects found in raw video frames, attached to the buffers as region-of-interest
// metas (class name, track id, box in frame pixels, class id and score).
#pragma once
#include <gst/base/gstbasetransform.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

#define GST_TYPE_ORVA_DETECT (gst_orva_detect_get_type())
G_DECLARE_FINAL_TYPE(GstOrvaDetect, gst_orva_detect, GST, ORVA_DETECT, GstBaseTransform)

G_END_DECLS

// Name of the param structure each meta carries: "class-id" (int) and "score" (double).
#define ORVA_DETECTION_PARAM "orva-detection"
