// orvaoverlay: draws the region-of-interest metas of a buffer (boxes, labels, ids) into the
// frame, whichever element attached them.
#pragma once
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

#define GST_TYPE_ORVA_OVERLAY (gst_orva_overlay_get_type())
G_DECLARE_FINAL_TYPE(GstOrvaOverlay, gst_orva_overlay, GST, ORVA_OVERLAY, GstVideoFilter)

G_END_DECLS
