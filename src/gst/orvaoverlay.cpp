// orvaoverlay: boxes and labels of the region-of-interest metas drawn into packed RGB frames.
// A label is the meta's type, the score when the meta carries orvadetect's param, and the id
// when it is a track id; the colour follows the id, else the class.
#include "orvaoverlay.h"

#include <algorithm>
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "orvadetect.h"

GST_DEBUG_CATEGORY_STATIC(orva_overlay_debug);
#define GST_CAT_DEFAULT orva_overlay_debug

struct _GstOrvaOverlay {
  GstVideoFilter parent;
};

G_DEFINE_TYPE(GstOrvaOverlay, gst_orva_overlay, GST_TYPE_VIDEO_FILTER)

#define ORVA_OVERLAY_CAPS GST_VIDEO_CAPS_MAKE("{ BGR, BGRx, BGRA, RGB, RGBx, RGBA }")

namespace {

// Colours in B, G, R order.
cv::Scalar colour(int k) {
  static const cv::Scalar kColours[] = {{0, 200, 255}, {255, 128, 0}, {80, 220, 80}, {255, 0, 200},
                                        {0, 80, 255},  {200, 200, 0}, {160, 80, 255}, {0, 255, 160}};
  return kColours[(k % 8 + 8) % 8];
}

}  // namespace

static GstFlowReturn orva_overlay_transform_frame_ip(GstVideoFilter* filter, GstVideoFrame* frame) {
  const int w = GST_VIDEO_FRAME_WIDTH(frame), h = GST_VIDEO_FRAME_HEIGHT(frame);
  const GstVideoFormat format = GST_VIDEO_FRAME_FORMAT(frame);
  const int channels = GST_VIDEO_FRAME_COMP_PSTRIDE(frame, 0) == 4 ? 4 : 3;
  const bool rgb_order = format == GST_VIDEO_FORMAT_RGB || format == GST_VIDEO_FORMAT_RGBx ||
                         format == GST_VIDEO_FORMAT_RGBA;
  cv::Mat img(h, w, CV_8UC(channels), GST_VIDEO_FRAME_PLANE_DATA(frame, 0), GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0));
  auto paint = [&](const cv::Scalar& bgr) {
    return rgb_order ? cv::Scalar(bgr[2], bgr[1], bgr[0], 255) : cv::Scalar(bgr[0], bgr[1], bgr[2], 255);
  };

  const int thick = std::max(2, std::min(w, h) / 300);
  const double font = std::max(0.5, std::min(w, h) / 900.0);
  gpointer state = nullptr;
  GstMeta* meta;
  while ((meta = gst_buffer_iterate_meta_filtered(frame->buffer, &state,
                                                  GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE))) {
    auto* roi = reinterpret_cast<GstVideoRegionOfInterestMeta*>(meta);
    const cv::Rect box = cv::Rect(roi->x, roi->y, roi->w, roi->h) & cv::Rect(0, 0, w, h);
    if (box.area() <= 0) continue;
    const char* type = g_quark_to_string(roi->roi_type);
    int cid = -1;
    double score = -1;
    if (const GstStructure* p = gst_video_region_of_interest_meta_get_param(roi, ORVA_DETECTION_PARAM)) {
      gst_structure_get_int(p, "class-id", &cid);
      gst_structure_get_double(p, "score", &score);
    }
    const cv::Scalar c = paint(colour(roi->id >= 0 ? roi->id : cid >= 0 ? cid : (int)roi->roi_type));
    cv::rectangle(img, box, c, thick);

    char label[160];
    int n = snprintf(label, sizeof label, "%s", type ? type : "?");
    if (score >= 0 && n < (int)sizeof label) n += snprintf(label + n, sizeof label - n, " %.2f", score);
    if (roi->id >= 0 && n < (int)sizeof label) snprintf(label + n, sizeof label - n, " #%d", roi->id);
    int base = 0;
    const cv::Size ts = cv::getTextSize(label, cv::FONT_HERSHEY_SIMPLEX, font, thick / 2 + 1, &base);
    const int top = box.y >= ts.height + 2 * thick ? box.y - ts.height - 2 * thick : box.y;
    cv::rectangle(img, cv::Rect(box.x, top, ts.width + 2 * thick, ts.height + 2 * thick), c, cv::FILLED);
    cv::putText(img, label, cv::Point(box.x + thick, top + ts.height + thick), cv::FONT_HERSHEY_SIMPLEX, font,
                paint(cv::Scalar(0, 0, 0)), thick / 2 + 1, cv::LINE_AA);
  }
  return GST_FLOW_OK;
}

static void gst_orva_overlay_init(GstOrvaOverlay*) {}

static void gst_orva_overlay_class_init(GstOrvaOverlayClass* klass) {
  GST_DEBUG_CATEGORY_INIT(orva_overlay_debug, "orvaoverlay", 0, "ORVA overlay");
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  gst_element_class_set_static_metadata(
      element, "ORVA overlay", "Filter/Effect/Video",
      "Draws the boxes, labels, scores and ids of the buffer's GstVideoRegionOfInterestMeta into the frame", "ORVA");
  GstCaps* caps = gst_caps_from_string(ORVA_OVERLAY_CAPS);
  gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  GST_VIDEO_FILTER_CLASS(klass)->transform_frame_ip = GST_DEBUG_FUNCPTR(orva_overlay_transform_frame_ip);
}
