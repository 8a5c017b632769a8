// orvajson: one line per buffer, {"source", "frame", "width", "height", "objects": [{"class",
// "class_id", "score", "box", "id"}]} as `orva detect` writes it, to `location` or, without
// one, to the bus as an element message "orvajson" with the fields line, frame and pts.
#include "orvajson.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "orvadetect.h"

GST_DEBUG_CATEGORY_STATIC(orva_json_debug);
#define GST_CAT_DEFAULT orva_json_debug

namespace {

struct JsonState {
  std::string location;  // properties, guarded by the object lock
  std::string source;
  FILE* file = nullptr;  // streaming side, between start and stop
  std::string source_now;
  guint64 frame = 0;
  int width = 0, height = 0;
};

}  // namespace

struct _GstOrvaJson {
  GstBaseTransform parent;
  JsonState* s;
};

G_DEFINE_TYPE(GstOrvaJson, gst_orva_json, GST_TYPE_BASE_TRANSFORM)

enum { PROP_0, PROP_LOCATION, PROP_SOURCE };

static void orva_json_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
  GstOrvaJson* self = GST_ORVA_JSON(object);
  const char* v = g_value_get_string(value);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_LOCATION: self->s->location = v ? v : ""; break;
    case PROP_SOURCE: self->s->source = v ? v : ""; break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

static void orva_json_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  GstOrvaJson* self = GST_ORVA_JSON(object);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case PROP_LOCATION: g_value_set_string(value, self->s->location.empty() ? nullptr : self->s->location.c_str()); break;
    case PROP_SOURCE: g_value_set_string(value, self->s->source.empty() ? nullptr : self->s->source.c_str()); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

static gboolean orva_json_start(GstBaseTransform* trans) {
  GstOrvaJson* self = GST_ORVA_JSON(trans);
  JsonState& s = *self->s;
  GST_OBJECT_LOCK(self);
  const std::string location = s.location;
  s.source_now = s.source.empty() ? GST_OBJECT_NAME(self) : s.source;
  GST_OBJECT_UNLOCK(self);
  s.frame = 0;
  if (!location.empty()) {
    s.file = fopen(location.c_str(), "w");
    if (!s.file) {
      GST_ELEMENT_ERROR(self, RESOURCE, OPEN_WRITE,
                        ("%s: property 'location': '%s': %s", GST_OBJECT_NAME(self), location.c_str(),
                         g_strerror(errno)),
                        (nullptr));
      return FALSE;
    }
  }
  return TRUE;
}

static gboolean orva_json_stop(GstBaseTransform* trans) {
  GstOrvaJson* self = GST_ORVA_JSON(trans);
  if (self->s->file) fclose(self->s->file);
  self->s->file = nullptr;
  return TRUE;
}

static gboolean orva_json_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps*) {
  GstOrvaJson* self = GST_ORVA_JSON(trans);
  GstVideoInfo info;
  if (!gst_video_info_from_caps(&info, incaps)) return FALSE;
  self->s->width = GST_VIDEO_INFO_WIDTH(&info);
  self->s->height = GST_VIDEO_INFO_HEIGHT(&info);
  return TRUE;
}

static GstFlowReturn orva_json_transform_ip(GstBaseTransform* trans, GstBuffer* buf) {
  GstOrvaJson* self = GST_ORVA_JSON(trans);
  JsonState& s = *self->s;
  nlohmann::ordered_json line = {
      {"source", s.source_now}, {"frame", s.frame}, {"width", s.width}, {"height", s.height}};
  nlohmann::ordered_json objects = nlohmann::ordered_json::array();
  gpointer state = nullptr;
  GstMeta* meta;
  while ((meta = gst_buffer_iterate_meta_filtered(buf, &state, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE))) {
    auto* roi = reinterpret_cast<GstVideoRegionOfInterestMeta*>(meta);
    int cid = -1;
    double score = 0;
    nlohmann::ordered_json score_json = nullptr;  // null for metas of other detectors
    if (const GstStructure* p = gst_video_region_of_interest_meta_get_param(roi, ORVA_DETECTION_PARAM)) {
      gst_structure_get_int(p, "class-id", &cid);
      if (gst_structure_get_double(p, "score", &score)) score_json = std::round(score * 1e4) / 1e4;
    }
    const char* type = g_quark_to_string(roi->roi_type);
    objects.push_back(nlohmann::ordered_json{{"class", type ? type : ""},
                                             {"class_id", cid},
                                             {"score", score_json},
                                             {"box", {roi->x, roi->y, roi->w, roi->h}},
                                             {"id", roi->id}});
  }
  line["objects"] = std::move(objects);
  const std::string text = line.dump();
  if (s.file) {
    fputs(text.c_str(), s.file);
    fputc('\n', s.file);
    if (fflush(s.file) != 0) {
      GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("%s: property 'location': write failed: %s", GST_OBJECT_NAME(self),
                                                g_strerror(errno)),
                        (nullptr));
      return GST_FLOW_ERROR;
    }
  } else {
    GstStructure* st = gst_structure_new("orvajson", "line", G_TYPE_STRING, text.c_str(), "frame", G_TYPE_UINT64,
                                         s.frame, "pts", G_TYPE_UINT64, GST_BUFFER_PTS(buf), nullptr);
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), st));
  }
  ++s.frame;
  return GST_FLOW_OK;
}

static void orva_json_finalize(GObject* object) {
  GstOrvaJson* self = GST_ORVA_JSON(object);
  if (self->s->file) fclose(self->s->file);
  delete self->s;
  G_OBJECT_CLASS(gst_orva_json_parent_class)->finalize(object);
}

static void gst_orva_json_init(GstOrvaJson* self) {
  self->s = new JsonState();
  gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}

static void gst_orva_json_class_init(GstOrvaJsonClass* klass) {
  GST_DEBUG_CATEGORY_INIT(orva_json_debug, "orvajson", 0, "ORVA JSON lines");
  GObjectClass* gobject = G_OBJECT_CLASS(klass);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* trans = GST_BASE_TRANSFORM_CLASS(klass);
  gobject->set_property = orva_json_set_property;
  gobject->get_property = orva_json_get_property;
  gobject->finalize = orva_json_finalize;
  const GParamFlags flags = (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  g_object_class_install_property(
      gobject, PROP_LOCATION,
      g_param_spec_string("location", "Location",
                          "File for the JSON lines; unset: each line goes to the bus as an element message "
                          "\"orvajson\" (line, frame, pts)",
                          nullptr, flags));
  g_object_class_install_property(
      gobject, PROP_SOURCE,
      g_param_spec_string("source", "Source", "Value of the \"source\" key (default: this element's name)", nullptr,
                          flags));
  gst_element_class_set_static_metadata(
      element, "ORVA JSON lines", "Filter/Analyzer/Video",
      "Writes one JSON line per buffer from its GstVideoRegionOfInterestMeta, as `orva detect` does", "ORVA");
  GstCaps* caps = gst_caps_from_string("video/x-raw(ANY)");
  gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  trans->start = GST_DEBUG_FUNCPTR(orva_json_start);
  trans->stop = GST_DEBUG_FUNCPTR(orva_json_stop);
  trans->set_caps = GST_DEBUG_FUNCPTR(orva_json_set_caps);
  trans->transform_ip = GST_DEBUG_FUNCPTR(orva_json_transform_ip);
}
