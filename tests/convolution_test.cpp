// Convolution layer: forward against a float64 reference over groups, dilation, strides and
// padding; batch-normalisation folding; finite-difference gradients; the 8-bit emulation.
#include <gtest/gtest.h>

#include <memory>

#include "base/checked_size.h"
#include "kernels/conv_int8_host.h"
#include "kernels/half_math.h"
#include "orva/conv.h"
#include "layer_test_util.h"
#include "orva/activation.h"
#include "orva/config.h"

using namespace orva_test;
using ORVA::ConvolutionLayer;

namespace {

// Half outputs of a float-accumulated product, then up to three more half roundings
// (normalise, scale-and-bias, activation).
constexpr double kLayerTol = kHalfChain;
// Folding divides by sqrt(var) + eps instead of sqrt(var + eps) and rounds the scaled weights.
constexpr double kFoldTol = 1e-2;
// cuDNN computes in half where the host accumulates in float.
constexpr double kCudaTol = kHalfAccumulate;
// 8 bits per input (1/254 of the range) and per weight (1/127) against exact arithmetic.
constexpr double kInt8Tol = 3e-2;

std::unique_ptr<ConvolutionLayer> make_conv(void* handle, int mode, const std::string& keys, int c, int h, int w,
                                            int batch, bool quant = false, bool fast = false) {
  return std::unique_ptr<ConvolutionLayer>(
      static_cast<ConvolutionLayer*>(make_layer(handle, mode, "convolution", keys, batch, w, h, c, quant, fast).release()));
}

struct LayerRun {
  explicit LayerRun(ConvolutionLayer* l)
      : layer(l), workspace(l->_gpu_handle, l->_workspace_size + 1), input(l->_gpu_handle, (size_t)l->_batch * l->_inputs) {}
  std::vector<Ftype> forward(const std::vector<Ftype>& x, int batch) {
    input.upload(x);
    params.input = input.get();
    params.workspace = reinterpret_cast<Ftype*>(workspace.get());
    params.batch = batch;
    layer->forward(params);
    return pull(layer->_gpu_handle, layer->_output, (size_t)batch * layer->_outputs);
  }
  ConvolutionLayer* layer;
  Buffer<char> workspace;
  Buffer<Ftype> input;
  ORVA::NetworkParams params;
};

TEST(ConvolutionStack, FoldedBatchnormMatchesUnfoldedInference) {
  const std::string weights = temp_path("stack.weights");
  std::vector<float> input = random_floats(16 * 12 * 4, 0.f, 1.f);
  for (int gpu : test_backends()) {
    ORVA::Network unfolded(ORVA::TEST, 1, gpu);
    ASSERT_EQ(unfolded.load(data_path("conv_stack.cfg").c_str(), nullptr), 0);
    randomize_network(unfolded);
    const std::vector<float> expected = predict_copy(unfolded, input, 1);
    unfolded.save(weights.c_str(), false);

    ORVA::Network folded(ORVA::TEST, 1, gpu);
    ASSERT_EQ(folded.load(data_path("conv_stack.cfg").c_str(), weights.c_str()), 0);
    EXPECT_EQ(conv_at(folded, 0)->_bn, nullptr);
    EXPECT_EQ(conv_at(folded, 0)->_withbn, 0);
    std::vector<double> ref(expected.begin(), expected.end());
    EXPECT_TRUE(NearL2(ref, predict_copy(folded, input, 1), kFoldTol)) << "backend " << gpu;
  }
}

struct Geometry {
  const char* keys;
  int c, h, w;
};

class ConvolutionForward : public OnEachBackend {};

TEST_P(ConvolutionForward, MatchesReferenceOverGeometries) {
  const Geometry cases[] = {
      {"filters=6\nsize=3\nactivation=leaky\n", 4, 9, 11},
      {"filters=4\nsize=3\nstride=2\npad=0\nactivation=relu\n", 3, 10, 9},
      {"filters=6\nsize=3\ngroups=3\ndilation=2\nactivation=linear\n", 6, 8, 8},
      {"filters=8\nsize=5\nstride=3\npad=1\ngroups=2\nactivation=logistic\n", 4, 13, 12},
      {"filters=5\nsize=1\n", 7, 6, 5},
      {"filters=4\nsize=1\nstride=2\nactivation=linear\n", 3, 7, 7},
      {"filters=4\nsize=2\npad=1\ndilation=3\nbatch_normalize=1\nactivation=leaky\n", 2, 7, 9},
      // Wide enough for the host's eight-wide gathers and for column panels that cross from
      // one sample into the next.
      {"filters=4\nsize=3\nstride=2\nactivation=leaky\n", 8, 111, 113},
      // Enough channels for the host's Winograd product; odd output sides, a wider border;
      // 49 and 98 tiles, one and two past the product's 48-column blocks.
      {"filters=32\nsize=3\nactivation=relu\n", 32, 9, 19},
      {"filters=40\nsize=3\npad=2\nactivation=linear\n", 36, 11, 11},
      // One group per channel (depthwise), unit and double stride, a dilated one without bias;
      // rows narrower than 32 and wider than 64 outputs.
      {"filters=12\nsize=3\ngroups=12\nactivation=leaky\n", 12, 9, 21},
      {"filters=8\nsize=3\ngroups=8\nactivation=relu\n", 8, 5, 70},
      {"filters=8\nsize=3\nstride=2\ngroups=8\ndilation=2\n", 8, 13, 19},
  };
  const int batch = 2;
  // On CUDA both algorithm choices: measured, and the library's heuristic.
  for (const bool fast : on_cuda() ? std::vector<bool>{false, true} : std::vector<bool>{false})
  for (const Geometry& g : cases) {
    auto l = make_conv(handle(), ORVA::TEST, g.keys, g.c, g.h, g.w, batch, false, fast);
    randomize_conv(l.get());
    LayerRun run(l.get());
    const std::vector<Ftype> x = random_halves((size_t)batch * l->_inputs, -1.f, 1.f);
    // One sample of a batch-2 layer: the pass size is honoured.
    const std::vector<Ftype> one = run.forward(x, 1);
    EXPECT_TRUE(NearL2(reference_conv(l.get(), to_doubles(x), 1), one, kLayerTol)) << g.keys;
    const std::vector<Ftype> both = run.forward(x, batch);
    EXPECT_TRUE(NearL2(reference_conv(l.get(), to_doubles(x), batch), both, kLayerTol)) << g.keys;
    if (l->_activation && !l->_bn) {
      // The layer's fused bias and activation rounds each step as the separate pass does.
      Buffer<Ftype> apart(handle(), both.size());
      conv_forward(handle(), l->_plan, batch, run.input.get(), l->_weight, apart.get(), run.workspace.get());
      activation_bias_forward(handle(), l->_activation->type, apart.get(), l->_bias, batch, l->_kn,
                              l->_out_h * l->_out_w);
      const std::vector<Ftype> separate = pull(handle(), apart.get(), both.size());
      size_t differ = 0;
      for (size_t i = 0; i < both.size(); ++i) differ += both[i].__x != separate[i].__x;
      EXPECT_EQ(differ, 0u) << g.keys;
    }
    // Weights replaced in place are picked up by the next pass.
    randomize_conv(l.get());
    const std::vector<Ftype> again = run.forward(x, batch);
    EXPECT_TRUE(NearL2(reference_conv(l.get(), to_doubles(x), batch), again, kLayerTol)) << g.keys;
    if (on_cuda()) count_cuda_comparison();
  }
}
ORVA_ON_EACH_BACKEND(ConvolutionForward);

TEST(ConvolutionGeometry, DefaultsAndShapes) {
  CudaHandle h{};
  create_handle(&h, -1);
  {
    auto dilated = make_conv(&h, ORVA::TEST, "filters=2\nsize=3\ndilation=2\n", 3, 13, 13, 1);
    EXPECT_EQ(dilated->_pad, 2);
    EXPECT_EQ(dilated->_out_w, 13);
    EXPECT_EQ(dilated->_out_h, 13);

    ORVA::setMsgLevel(INFO);
    ::testing::internal::CaptureStderr();
    auto grouped = make_conv(&h, ORVA::TEST, "filters=16\nsize=3\ngroups=2\n", 64, 8, 8, 1);
    const std::string line = ::testing::internal::GetCapturedStderr();
    ORVA::setMsgLevel(ALERT);
    EXPECT_EQ(grouped->_weights / grouped->_kn, 32 * 9);
    EXPECT_NE(line.find("3x3 / 1,2"), std::string::npos) << line;

    auto rgb = make_conv(&h, ORVA::TEST, "filters=4\nsize=3\nquant_thresh=2\n", 3, 8, 8, 1, true);
    EXPECT_EQ(rgb->_iqthresh_init, 0.f);
    EXPECT_EQ(rgb->_qinput_size, 0u);
    auto quad = make_conv(&h, ORVA::TEST, "filters=4\nsize=3\nquant_thresh=2\n", 4, 8, 8, 1, true);
    EXPECT_EQ(quad->_iqthresh_init, 2.f);
    EXPECT_EQ(quad->_qinput_size, 2u * 4 * 8 * 8);
  }
  destroy_handle(&h);
}

// Gradients into the input and the weights on every backend against central differences.
TEST(ConvolutionGradient, MatchesFiniteDifferences) {
  struct Case {
    const char* keys;
    int c, h, w;
    float step;  // a linear layer is exactly linear: a large step costs nothing
    double tol;  // half rounding of L and of the accumulated gradients
  } cases[] = {
      {"filters=6\nsize=3\nstride=2\ngroups=2\nactivation=linear\n", 4, 9, 8, 0.25f, 2e-2},
      {"filters=4\nsize=3\ndilation=2\nactivation=linear\n", 3, 8, 8, 0.25f, 2e-2},
      {"filters=4\nsize=1\nactivation=linear\n", 5, 6, 6, 0.25f, 2e-2},
      // Normalisation is not linear, but a smaller step leaves the difference to the half
      // rounding of L (0.125 failed 5 seeds in 150); L carries more rounding here.
      {"filters=4\nsize=3\nbatch_normalize=1\nactivation=linear\n", 3, 6, 6, 0.25f, 4e-2},
      {"filters=4\nsize=3\ngroups=2\nbatch_normalize=1\nactivation=logistic\n", 4, 6, 5, 0.25f, 4e-2},
  };
  for (const Case& k : cases)
    check_input_backward("[network]\nwidth=" + std::to_string(k.w) + "\nheight=" + std::to_string(k.h) +
                             "\nchannels=" + std::to_string(k.c) + "\n[convolution]\n" + k.keys,
                         2, k.step, k.tol, false, true);
}

// The layer's weights record as a weights file stores it: biases, then weights, in float.
std::string weights_record(const std::vector<Ftype>& bias, const std::vector<Ftype>& w) {
  std::vector<float> record = to_floats(bias);
  const std::vector<float> wf = to_floats(w);
  record.insert(record.end(), wf.begin(), wf.end());
  const std::string path = temp_path("int8.weights");
  write_bytes(path, std::vector<unsigned char>(reinterpret_cast<unsigned char*>(record.data()),
                                               reinterpret_cast<unsigned char*>(record.data() + record.size())));
  return path;
}

TEST(ConvolutionInt8, EmulationMatchesFloatReference) {
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  void* h = &ctx;
  for (float thresh : {4.f, -4.f}) {
    const int batch = 2;
    auto l = make_conv(h, ORVA::TEST, "filters=8\nsize=3\nactivation=linear\nquant_thresh=" + std::to_string(thresh) + "\n",
                       8, 7, 9, batch, true);
    const std::vector<Ftype> w = random_halves(l->_weights, -0.3f, 0.3f);
    const std::vector<Ftype> bias = random_halves(l->_kn, -0.5f, 0.5f);
    const std::string path = weights_record(bias, w);
    // Reference first: inference frees the float weights once the 8-bit copy exists.
    push(h, l->_weight, w);
    push(h, l->_bias, bias);
    const std::vector<Ftype> x = random_halves((size_t)batch * l->_inputs, thresh > 0 ? 0.f : -4.f, 4.f);
    const std::vector<double> ref = reference_conv(l.get(), to_doubles(x), batch);
    FILE* fp = fopen(path.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    l->loadWeight(fp, true);
    fclose(fp);
    ASSERT_EQ(l->_iqthresh, thresh);
    ASSERT_NE(l->_qweight, nullptr);
    EXPECT_EQ(l->_weight, nullptr);
    Buffer<char> qinput(h, l->_qinput_size);
    LayerRun run(l.get());
    run.params.qinput = qinput.get();
    EXPECT_TRUE(NearL2(ref, run.forward(x, batch), kInt8Tol)) << "threshold " << thresh;
  }
  destroy_handle(&ctx);
}


// A network loaded for 8-bit inference and resized must run its 8-bit path on buffers made
// for the new size, with the weights and biases it loaded: the same as one built at that size.
TEST(ConvolutionInt8, ResizedNetworkMatchesOneBuiltAtTheNewSize) {
  const auto text = [](int w, int h) {
    std::string t = "[network]\nwidth=" + std::to_string(w) + "\nheight=" + std::to_string(h) + "\nchannels=3\n";
    for (const char* keys : {"filters=8\nsize=3\nactivation=leaky\n", "filters=8\nsize=3\nstride=2\nactivation=relu\n",
                             "filters=4\nsize=1\nactivation=linear\n"})
      t += std::string("[convolution]\nquant_thresh=4\n") + keys;
    return t;
  };
  const int batch = 2;
  const std::string small = temp_path("small.cfg"), large = temp_path("large.cfg");
  const std::string weights = temp_path("resize.weights");
  write_file(small, text(32, 24));
  write_file(large, text(48, 40));
  {
    ORVA::Network net(ORVA::TEST, batch, -1);
    ASSERT_EQ(net.load(small.c_str(), nullptr), 0);
    randomize_network(net);
    net.save(weights.c_str(), false);
  }
  const std::vector<float> input = random_floats((size_t)batch * 48 * 40 * 3, 0.f, 1.f);
  std::vector<float> host_built;
  for (int gpu : test_backends()) {
    ORVA::Network built(ORVA::TEST, batch, gpu), resized(ORVA::TEST, batch, gpu);
    ASSERT_EQ(built.load(large.c_str(), weights.c_str(), true), 0);
    ASSERT_EQ(resized.load(small.c_str(), weights.c_str(), true), 0);
    ASSERT_NE(conv_at(resized, 1)->_qinput_size, 0u);
    resized.resize(48, 40);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(conv_at(resized, i)->_qinput_size, conv_at(built, i)->_qinput_size) << i;
    const std::vector<float> want = predict_copy(built, input, batch);
    const std::vector<float> got = predict_copy(resized, input, batch);
    EXPECT_EQ(got, want) << "backend " << gpu;
    if (gpu < 0) {
      host_built = want;
    } else {
      EXPECT_TRUE(NearL2(std::vector<double>(host_built.begin(), host_built.end()), got, kCudaTol)) << "CUDA vs host";
      count_cuda_comparison();
    }
  }
}

// The 8-bit layer on each backend with the same weights and input: CUDA must agree with the
// host twin, and a layout the packed four-channel path cannot take must fall back to half.
struct Int8Case {
  const char* keys;
  int c, filters, groups;
  bool eight_bit;  // whether the 8-bit path is expected
};

std::vector<Ftype> int8_forward(int gpu, const Int8Case& k, const std::vector<Ftype>& w, const std::vector<Ftype>& bias,
                                const std::vector<Ftype>& x, int batch) {
  CudaHandle ctx{};
  create_handle(&ctx, gpu);
  std::vector<Ftype> out;
  {
    auto l = make_conv(&ctx, ORVA::TEST, k.keys, k.c, 9, 7, batch, true);
    EXPECT_EQ(l->_qinput_size != 0, k.eight_bit) << k.keys << " on backend " << gpu;
    FILE* fp = fopen(weights_record(bias, w).c_str(), "rb");
    l->loadWeight(fp, true);
    fclose(fp);
    Buffer<char> qinput(&ctx, l->_qinput_size + 1);
    LayerRun run(l.get());
    run.params.qinput = qinput.get();
    out = run.forward(x, batch);
  }
  destroy_handle(&ctx);
  return out;
}

TEST(ConvolutionInt8, CudaMatchesHostTwinAndUnpackableGroupsTakeHalf) {
  const Int8Case cases[] = {
      {"filters=8\nsize=3\nactivation=leaky\nquant_thresh=4\n", 8, 8, 1, true},
      {"filters=8\nsize=3\nstride=2\ngroups=2\nquant_thresh=-4\n", 8, 8, 2, true},  // four channels per group
      {"filters=4\nsize=3\ngroups=2\nactivation=relu\nquant_thresh=4\n", 4, 4, 2, false},   // two per group
      {"filters=8\nsize=3\ngroups=8\nactivation=linear\nquant_thresh=4\n", 8, 8, 8, false},  // depthwise
      {"filters=8\nsize=3\nquant_thresh=4\n", 7400, 8, 1, false},  // deeper than 32-bit sums allow
  };
  const int batch = 2;
  for (const Int8Case& k : cases) {
    const std::vector<Ftype> w = random_halves((size_t)k.filters * (k.c / k.groups) * 9, -0.3f, 0.3f);
    const std::vector<Ftype> bias = random_halves(k.filters, -0.5f, 0.5f);
    const std::vector<Ftype> x = random_halves((size_t)batch * k.c * 9 * 7, -4.f, 4.f);
    std::vector<Ftype> host;
    for (int gpu : test_backends()) {
      const std::vector<Ftype> got = int8_forward(gpu, k, w, bias, x, batch);
      if (gpu < 0) {
        host = got;
        continue;
      }
      // The same integer sums and one rounding of qscale * sum + bias on both sides.
      EXPECT_TRUE(NearEach(host, got, kHalfRounding)) << k.keys;
      count_cuda_comparison();
    }
  }
}

// Both host paths of the 8-bit pass (dot products where the processor has them, and the
// portable loops) against integer sums formed here, bit for bit: filter depths and filter
// counts off the packed blocks, signed and unsigned inputs, groups, strides, dilation, a pass
// smaller than the plan's batch, and a filter at the deepest the layer allows with every
// product at its extreme (the biased signed sums wrap; the corrected ones must not).
TEST(ConvolutionInt8, HostPathsGiveTheExactSums) {
  struct Shape {
    int c, h, w, filters, size, stride, pad, dilation, groups, batch, pass;
    float iq;
    bool extreme;
  };
  const Shape shapes[] = {
      {5, 7, 9, 13, 3, 1, 1, 1, 1, 2, 2, 4.f, false},     // 5 channels: a partial quad
      {8, 11, 40, 8, 3, 2, 1, 1, 2, 3, 2, -4.f, false},   // groups, stride 2, pass < batch
      {12, 17, 33, 20, 3, 1, 2, 2, 1, 1, 1, -4.f, false},  // dilated, rows past one vector
      {6, 12, 13, 9, 5, 3, 3, 2, 3, 2, 2, 4.f, false},     // two channels a group, stride 3
      {36, 9, 70, 40, 3, 2, 1, 1, 1, 4, 4, 4.f, false},
      {7396, 3, 3, 8, 3, 1, 0, 1, 1, 1, 1, 1.f, true},     // depth 66564
      {7396, 3, 3, 8, 3, 1, 0, 1, 1, 1, 1, -1.f, true},
  };
  CudaHandle ctx{};
  create_handle(&ctx, -1);
  void* h = &ctx;
  for (const Shape& k : shapes) {
    const int out_h = (k.h + 2 * k.pad - (k.size - 1) * k.dilation - 1) / k.stride + 1;
    const int out_w = (k.w + 2 * k.pad - (k.size - 1) * k.dilation - 1) / k.stride + 1;
    const ConvShape shape = {k.batch, k.c, k.h, k.w, k.filters, out_h, out_w, k.size, k.stride, k.pad,
                             k.dilation, k.groups, false, k.iq > 0 ? 1 : -1, true};
    const int cpg = k.c / k.groups, fpg = k.filters / k.groups, K = cpg * k.size * k.size, N = out_h * out_w;
    const size_t inputs = (size_t)k.c * k.h * k.w;
    std::vector<Ftype> w = random_halves((size_t)k.filters * K, -0.5f, 0.5f);
    std::vector<Ftype> x = random_halves(inputs * k.batch, -2 * std::fabs(k.iq), 2 * std::fabs(k.iq));
    if (k.extreme) {  // every weight +-127, every input 254 (unsigned) or +-127
      for (Ftype& v : w) v = cpu::f2h(cpu::h2f(v) < 0 ? -0.5f : 0.5f);
      for (Ftype& v : x) v = cpu::f2h(k.iq > 0 || cpu::h2f(v) >= 0 ? 2.f : -2.f);
    }
    const std::vector<Ftype> bias = random_halves(k.filters, -0.5f, 0.5f);
    ConvPlan* plan = conv_plan_create(h, shape);
    Buffer<Ftype> wb(h, w), xb(h, x), bb(h, bias), out(h, (size_t)k.pass * k.filters * N);
    Buffer<signed char> qw(h, w.size());
    Buffer<char> qin(h, 2 * inputs * k.batch);
    bool is_unsigned = false;
    const float qscale = conv_quantize_weights(h, plan, wb, (int)w.size(), qw, &is_unsigned) / 127.f * 0.01f;
    conv_forward_int8(h, plan, k.pass, xb, k.iq, qin, qw, qscale, bb, out, nullptr);
    const std::vector<Ftype> dispatched = out.download();
    cpu::conv_int8_forward_portable(h, shape, k.pass, qin, qw, qscale, bb, out);
    const std::vector<Ftype> portable = out.download();
    conv_plan_destroy(h, plan);

    const signed char* q = qw.get();
    const unsigned char* plain = reinterpret_cast<const unsigned char*>(qin.get()) + inputs * k.batch;
    int mismatches = 0;
    for (int b = 0; b < k.pass; ++b)
      for (int f = 0; f < k.filters; ++f)
        for (int p = 0; p < N; ++p) {
          const int g = f / fpg, oy = p / out_w, ox = p % out_w;
          int64_t sum = 0;
          for (int c = 0; c < cpg; ++c)
            for (int ky = 0; ky < k.size; ++ky)
              for (int kx = 0; kx < k.size; ++kx) {
                const int iy = oy * k.stride - k.pad + ky * k.dilation, ix = ox * k.stride - k.pad + kx * k.dilation;
                if (iy < 0 || iy >= k.h || ix < 0 || ix >= k.w) continue;
                const unsigned char byte = plain[b * inputs + ((size_t)(g * cpg + c) * k.h + iy) * k.w + ix];
                sum += (k.iq > 0 ? (int)byte : (int)(signed char)byte) * q[((size_t)f * cpg + c) * k.size * k.size +
                                                                            ky * k.size + kx];
              }
          ASSERT_LT(std::llabs(sum), 1LL << 31);
          const uint16_t want = cpu::f2h(qscale * (float)sum + cpu::h2f(bias[f])).__x;
          const size_t at = ((size_t)b * k.filters + f) * N + p;
          mismatches += dispatched[at].__x != want || portable[at].__x != want;
        }
    EXPECT_EQ(mismatches, 0) << k.c << " channels, " << k.filters << " filters, groups " << k.groups << ", stride "
                             << k.stride << ", iq " << k.iq
                             << (cpu::conv_int8_dot_products() ? " (dot products)" : " (portable)");
  }
  destroy_handle(&ctx);
}

// A large batch must not choose an algorithm whose workspace the network then refuses.
TEST(ConvolutionPlan, WorkspaceStaysWithinTheNetworkLimit) {
  for (int gpu : test_backends()) {
    CudaHandle ctx{};
    create_handle(&ctx, gpu);
    for (bool fast : {false, true}) {
      auto l = make_conv(&ctx, ORVA::TEST, "filters=4\nsize=3\n", 256, 64, 64, 64, false, fast);
      EXPECT_LE(l->_workspace_size, (size_t)ORVA::kMaxWorkspaceBytes) << "backend " << gpu << (fast ? ", heuristic" : "");
    }
    destroy_handle(&ctx);
  }
}

}  // namespace
