// Training options from the description and the learning-rate schedule.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "orva/train.h"
#include "orva/util.h"

namespace {

struct PolicyName {
  const char* name;
  RatePolicy policy;
};
const PolicyName kPolicies[] = {{"constant", CONSTANT}, {"step", STEP},       {"exp", EXP},
                                {"poly", POLY},         {"steps", STEPS},     {"sigmoid", SIGMOID},
                                {"random", RANDOM},     {"steps-cyclic", STEPS_CYCLIC}};

RatePolicy policy_of(const char* name) {
  for (const PolicyName& p : kPolicies)
    if (strcmp(p.name, name) == 0) return p.policy;
  ORVA_MSG(WARNING, "Couldn't find policy %s, going with constant\n", name);
  return CONSTANT;
}

// Multiplies the scales of every step already reached; *all is set when the last one was.
float apply_steps(const TrainParams& p, int b, float r, bool* all) {
  *all = false;
  for (int i = 0; i < p.num_steps; ++i) {
    r *= p.scales[i];
    if (i + 1 == p.num_steps) {
      *all = true;
      break;
    }
    if (p.steps[i + 1] > b) break;
  }
  return r;
}

}  // namespace

bool parse_train_options(TrainParams& p, ConfigReader& cfg) {
  int ns = cfg.findSection("train", 0);
  if (ns < 0) ns = cfg.findSection("network", 0);
  if (ns < 0) return false;
  p.learning_rate = cfg.findFloat(ns, "learning_rate", 0.001f, true);
  p.momentum = cfg.findFloat(ns, "momentum", 0.9f, true);
  p.decay = cfg.findFloat(ns, "decay", 0.0001f, true);
  p.max_batches = cfg.findInt(ns, "max_batches", 0, true);
  p.subdivisions = std::max(1, cfg.findInt(ns, "subdivisions", 1, true));
  p.time_steps = std::max(1, cfg.findInt(ns, "time_steps", 1, true));
  p.policy = policy_of(cfg.findStr(ns, "policy", "constant", true));
  p.burn_in = cfg.findInt(ns, "burn_in", 0, true);
  p.power = cfg.findFloat(ns, "power", 4.f, true);
  if (p.policy == EXP || p.policy == SIGMOID) p.gamma = cfg.findFloat(ns, "gamma", 1.f, true);
  if (p.policy == STEP || p.policy == SIGMOID) p.step = cfg.findInt(ns, "step", 1, true);
  if (p.policy == STEP) p.scale = cfg.findFloat(ns, "scale", 1.f, true);
  p.num_steps = 0;
  p.steps.clear();
  p.scales.clear();
  if (p.policy == STEPS || p.policy == STEPS_CYCLIC) {
    const char* steps = cfg.findStr(ns, "steps", nullptr, true);
    const char* scales = cfg.findStr(ns, "scales", nullptr, true);
    if (!steps || !scales) {
      ORVA_FATAL("STEPS policy must have steps and scales in cfg file");
      return false;
    }
    int n = 1;
    for (const char* c = steps; *c; ++c) n += *c == ',';
    // Entry i is the i-th comma-separated field of each list; a short list of scales reads
    // as zeros, as atof of an empty field would.
    const char* s = steps;
    const char* f = scales;
    for (int i = 0; i < n; ++i) {
      p.steps.push_back(atoi(s));
      p.scales.push_back(f ? (float)atof(f) : 0.f);
      s = strchr(s, ',');
      s = s ? s + 1 : "";
      if (f) {
        f = strchr(f, ',');
        if (f) ++f;
      }
    }
    p.num_steps = n;
  }
  return true;
}

float train_rate(const TrainParams& p, int b) {
  const float lr = p.learning_rate;
  if (p.burn_in >= b) return lr * std::pow((float)b / p.burn_in, p.power);
  bool all = false;
  switch (p.policy) {
    case CONSTANT: return lr;
    case STEP: return lr * std::pow(p.scale, (float)b / p.step);
    case EXP: return lr * std::pow(p.gamma, (float)b);
    case POLY: return lr * std::pow(1.f - (float)b / p.max_batches, p.power);
    case STEPS:
      if (p.num_steps < 1 || b < p.steps[0]) return lr;
      return apply_steps(p, b, lr, &all);
    case SIGMOID: return (float)(lr / (1.0 + std::exp((double)p.gamma * (b - p.step))));
    case RANDOM: return lr * std::pow(rand_uniform(0, 1), p.power);
    case STEPS_CYCLIC: {
      if (p.num_steps < 1) return lr;
      float r = lr;
      if (b >= p.steps[0]) {
        r = apply_steps(p, b, r, &all);
        if (all) return r;
      }
      const double x = ((b - 1) % 100) * 0.01;
      return (float)(r * (x * 0.25 - x + 1));
    }
    default:
      ORVA_MSG(WARNING, "Rate policy is weird!\n");
      return lr;
  }
}
