// The plugin: detection, overlay and JSON lines as GStreamer elements.
#include <gst/gst.h>

#include "orvadetect.h"
#include "orvajson.h"
#include "orvaoverlay.h"

static gboolean plugin_init(GstPlugin* plugin) {
  return gst_element_register(plugin, "orvadetect", GST_RANK_NONE, GST_TYPE_ORVA_DETECT) &&
         gst_element_register(plugin, "orvaoverlay", GST_RANK_NONE, GST_TYPE_ORVA_OVERLAY) &&
         gst_element_register(plugin, "orvajson", GST_RANK_NONE, GST_TYPE_ORVA_JSON);
}

#define PACKAGE "orva"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, orva, "ORVA object detection, tracking and annotation",
                  plugin_init, ORVA_GST_VERSION, "Proprietary", "orva", "orva")
