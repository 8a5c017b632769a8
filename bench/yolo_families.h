// Full-size descriptions in the darknet dialect with the shapes of YOLOv3-tiny, YOLOv3,
// YOLOv4-tiny and YOLOv4 (80 classes), written here section by section, and random weights of
// sensible scale for them. Shared by bench_peer and bench_yolo_agree.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "darknet.h"

namespace yolo_families {

// Appends sections and hands back their layer indexes, for the routes that name them.
class Builder {
 public:
  Builder(int w, int h) {
    _s = "[net]\nbatch=1\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=3\n";
  }
  int conv(int filters, int size, int stride, const char* act, bool bn = true) {
    return add("[convolutional]\nbatch_normalize=" + std::string(bn ? "1" : "0") + "\nfilters=" +
               std::to_string(filters) + "\nsize=" + std::to_string(size) + "\nstride=" + std::to_string(stride) +
               "\npad=1\nactivation=" + act + "\n");
  }
  int out(int filters = 255) { return conv(filters, 1, 1, "linear", false); }
  int route(const std::string& layers, int groups = 1, int group_id = 0) {
    std::string s = "[route]\nlayers=" + layers + "\n";
    if (groups > 1) s += "groups=" + std::to_string(groups) + "\ngroup_id=" + std::to_string(group_id) + "\n";
    return add(s);
  }
  int maxpool(int size, int stride) {
    return add("[maxpool]\nsize=" + std::to_string(size) + "\nstride=" + std::to_string(stride) + "\n");
  }
  int shortcut(int from) { return add("[shortcut]\nfrom=" + std::to_string(from) + "\nactivation=linear\n"); }
  int upsample() { return add("[upsample]\nstride=2\n"); }
  int yolo(const char* mask, const char* anchors, int num, float scale = 1.f) {
    return add(std::string("[yolo]\nmask=") + mask + "\nanchors=" + anchors + "\nclasses=80\nnum=" +
               std::to_string(num) + "\nscale_x_y=" + std::to_string(scale) +
               "\nignore_thresh=0.7\ntruth_thresh=1\nrandom=1\njitter=0.3\n");
  }
  const std::string& text() const { return _s; }
  int last() const { return _n - 1; }

 private:
  int add(const std::string& s) {
    _s += s;
    return _n++;
  }
  std::string _s;
  int _n = 0;
};

inline std::string tiny_v3(int w, int h) {
  const char* a = "10,14, 23,27, 37,58, 81,82, 135,169, 344,319";
  Builder b(w, h);
  int c8 = 0;
  for (int f = 16; f <= 512; f *= 2) {
    const int c = b.conv(f, 3, 1, "leaky");
    if (f == 256) c8 = c;
    b.maxpool(2, f == 512 ? 1 : 2);
  }
  b.conv(1024, 3, 1, "leaky");
  const int c13 = b.conv(256, 1, 1, "leaky");
  b.conv(512, 3, 1, "leaky");
  b.out();
  b.yolo("3,4,5", a, 6);
  b.route(std::to_string(c13));
  b.conv(128, 1, 1, "leaky");
  b.upsample();
  b.route("-1," + std::to_string(c8));
  b.conv(256, 3, 1, "leaky");
  b.out();
  b.yolo("0,1,2", a, 6);
  return b.text();
}

inline std::string v3(int w, int h) {
  const char* a = "10,13, 16,30, 33,23, 30,61, 62,45, 59,119, 116,90, 156,198, 373,326";
  Builder b(w, h);
  b.conv(32, 3, 1, "leaky");
  int stage_out[5] = {0};
  const int blocks[5] = {1, 2, 8, 8, 4};
  for (int s = 0; s < 5; ++s) {
    const int f = 64 << s;
    b.conv(f, 3, 2, "leaky");
    for (int k = 0; k < blocks[s]; ++k) {
      b.conv(f / 2, 1, 1, "leaky");
      b.conv(f, 3, 1, "leaky");
      stage_out[s] = b.shortcut(-3);
    }
  }
  // Three heads, each over five alternating convolutions, joined top-down.
  auto five = [&](int f) {
    for (int k = 0; k < 5; ++k) b.conv(k % 2 ? 2 * f : f, k % 2 ? 3 : 1, 1, "leaky");
    return b.last();
  };
  const char* masks[3] = {"6,7,8", "3,4,5", "0,1,2"};
  int from = five(512);
  for (int hd = 0; hd < 3; ++hd) {
    const int f = 512 >> hd;
    b.conv(2 * f, 3, 1, "leaky");
    b.out();
    b.yolo(masks[hd], a, 9);
    if (hd == 2) break;
    b.route(std::to_string(from));
    b.conv(f / 2, 1, 1, "leaky");
    b.upsample();
    b.route("-1," + std::to_string(stage_out[3 - hd]));
    from = five(f / 2);
  }
  return b.text();
}

inline std::string tiny_v4(int w, int h) {
  const char* a = "10,14, 23,27, 37,58, 81,82, 135,169, 344,319";
  Builder b(w, h);
  b.conv(32, 3, 2, "leaky");
  b.conv(64, 3, 2, "leaky");
  int mid = 0;
  for (int f = 64; f <= 256; f *= 2) {
    b.conv(f, 3, 1, "leaky");
    b.route("-1", 2, 1);
    b.conv(f / 2, 3, 1, "leaky");
    b.conv(f / 2, 3, 1, "leaky");
    b.route("-1,-2");
    const int c = b.conv(f, 1, 1, "leaky");
    if (f == 256) mid = c;
    b.route("-6,-1");
    b.maxpool(2, 2);
  }
  b.conv(512, 3, 1, "leaky");
  const int p = b.conv(256, 1, 1, "leaky");
  b.conv(512, 3, 1, "leaky");
  b.out();
  b.yolo("3,4,5", a, 6, 1.05f);
  b.route(std::to_string(p));
  b.conv(128, 1, 1, "leaky");
  b.upsample();
  b.route("-1," + std::to_string(mid));
  b.conv(256, 3, 1, "leaky");
  b.out();
  b.yolo("0,1,2", a, 6, 1.05f);
  return b.text();
}

inline std::string v4(int w, int h) {
  const char* a = "12,16, 19,36, 40,28, 36,75, 76,55, 72,146, 142,110, 192,243, 459,401";
  Builder b(w, h);
  b.conv(32, 3, 1, "mish");
  // Cross-stage partial stages: a bypass convolution and a residual path, joined.
  int stage_out[5] = {0};
  const int blocks[5] = {1, 2, 8, 8, 4};
  for (int s = 0; s < 5; ++s) {
    const int f = 64 << s, half = s == 0 ? f : f / 2;
    b.conv(f, 3, 2, "mish");
    const int bypass = b.conv(half, 1, 1, "mish");
    b.route("-2");
    b.conv(half, 1, 1, "mish");
    for (int k = 0; k < blocks[s]; ++k) {
      b.conv(s == 0 ? f / 2 : half, 1, 1, "mish");
      b.conv(half, 3, 1, "mish");
      b.shortcut(-3);
    }
    b.conv(half, 1, 1, "mish");
    b.route("-1," + std::to_string(bypass));
    stage_out[s] = b.conv(f, 1, 1, "mish");
  }
  auto alt = [&](int f, int n) {
    for (int k = 0; k < n; ++k) b.conv(k % 2 ? 2 * f : f, k % 2 ? 3 : 1, 1, "leaky");
    return b.last();
  };
  alt(512, 3);
  // The spatial pyramid: three stride-1 pools of the same map, stacked with it.
  b.maxpool(5, 1);
  b.route("-2");
  b.maxpool(9, 1);
  b.route("-4");
  b.maxpool(13, 1);
  b.route("-1,-3,-5,-6");
  const int p5 = alt(512, 3);
  b.conv(256, 1, 1, "leaky");
  b.upsample();
  b.route(std::to_string(stage_out[3]));
  b.conv(256, 1, 1, "leaky");
  b.route("-1,-3");
  const int p4 = alt(256, 5);
  b.conv(128, 1, 1, "leaky");
  b.upsample();
  b.route(std::to_string(stage_out[2]));
  b.conv(128, 1, 1, "leaky");
  b.route("-1,-3");
  int from = alt(128, 5);
  const char* masks[3] = {"0,1,2", "3,4,5", "6,7,8"};
  const float scales[3] = {1.2f, 1.1f, 1.05f};
  const int joins[3] = {0, p4, p5};
  for (int hd = 0; hd < 3; ++hd) {
    const int f = 128 << hd;
    if (hd > 0) {
      b.route(std::to_string(from));
      b.conv(f, 3, 2, "leaky");
      b.route("-1," + std::to_string(joins[hd]));
      from = alt(f, 5);
    }
    b.conv(2 * f, 3, 1, "leaky");
    b.out();
    b.yolo(masks[hd], a, 9, scales[hd]);
  }
  return b.text();
}

struct Family {
  const char* name;
  std::string (*make)(int, int);
};
inline const std::vector<Family>& families() {
  static const std::vector<Family> f = {
      {"yolov3-tiny", tiny_v3}, {"yolov3", v3}, {"yolov4-tiny", tiny_v4}, {"yolov4", v4}};
  return f;
}

// The weights file's floats in the dialect's order: per convolution biases, then (with
// normalisation) scales, means and variances, then filters scaled to the fan-in, so the
// activations keep their size through the stack. shapes: the converter's per-layer shapes.
inline std::vector<float> random_weights(const std::vector<orvacli::DarknetSection>& sections,
                                         const std::vector<orvacli::LayerShape>& shapes, std::mt19937& rng) {
  std::vector<float> w;
  auto add = [&](size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    for (size_t i = 0; i < n; ++i) w.push_back(d(rng));
  };
  int c = 3;
  for (size_t s = 1; s < sections.size(); ++s) {
    const orvacli::DarknetSection& sec = sections[s];
    auto key = [&](const char* k, int def) {
      int v = def;
      for (const auto& kv : sec.keys)
        if (kv.key == k) v = std::stoi(kv.value);
      return v;
    };
    if (sec.name == "convolutional") {
      const int f = key("filters", 1), size = key("size", 1);
      add(f, -0.2f, 0.2f);
      if (key("batch_normalize", 0)) {
        add(f, 0.6f, 1.4f);
        add(f, -0.2f, 0.2f);
        add(f, 0.5f, 1.5f);
      }
      const float a = 1.6f / std::sqrt((float)c * size * size);
      add((size_t)f * c * size * size, -a, a);
    }
    if (s - 1 < shapes.size() && shapes[s - 1].c > 0) c = shapes[s - 1].c;
  }
  return w;
}

// A weights file: version 0.2.0, 64-bit samples seen, then the floats.
inline std::vector<unsigned char> weights_file(const std::vector<float>& w) {
  std::vector<unsigned char> bytes(20 + 4 * w.size(), 0);
  const int32_t head[3] = {0, 2, 0};
  std::memcpy(bytes.data(), head, 12);
  if (!w.empty()) std::memcpy(bytes.data() + 20, w.data(), 4 * w.size());
  return bytes;
}

}  // namespace yolo_families
