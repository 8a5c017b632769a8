#include "orva/activation.h"

#include <cstring>

#include "kernels/activation_kernel.h"
#include "base/error.h"
#include "backend/backend.h"
#include "kernels/half_math.h"
#include "orva/normalize.h"
#include "orva/util.h"

namespace {

struct ActivationName {
  const char* name;
  int id;
};

// Looked up in this order; layers store the ids, so they never change.
const ActivationName kActivationNames[] = {
    {"logistic", 0}, {"relu", 1},  {"relie", 2},   {"linear", 3},  {"tanh", 5},    {"leaky", 7},
    {"elu", 8},      {"loggy", 9}, {"hardtan", 11}, {"relu6", 13}, {"relu10", 14}, {"mish", 15},
};

bool activation_known(int type) {
  for (const ActivationName& a : kActivationNames)
    if (a.id == type) return true;
  return false;
}

float host_activate(int type, float x) { return cpu::h2f(cpu::activate_value(type, cpu::f2h(x))); }
float host_gradient(int type, float y) { return cpu::h2f(cpu::gradient_value(type, cpu::f2h(y))); }

}  // namespace

int ActivationType::type(const char* name) {
  if (!name) return -1;
  for (const ActivationName& a : kActivationNames)
    if (strcmp(a.name, name) == 0) return a.id;
  return -1;
}

Activation* ActivationType::create(int id, void* handle) {
  switch (id) {
    case 0: return new LogisticActivation(handle);
    case 1: return new ReluActivation(handle);
    case 2: return new RelieActivation(handle);
    case 3: return new LinearActivation(handle);
    case 5: return new TanhActivation(handle);
    case 7: return new LeakyActivation(handle);
    case 8: return new EluActivation(handle);
    case 9: return new LoggyActivation(handle);
    case 11: return new HardtanActivation(handle);
    case 13: return new Relu6Activation(handle);
    case 14: return new Relu10Activation(handle);
    case 15: return new MishActivation(handle);
    default: return nullptr;
  }
}

void Activation::activate(Ftype* x, int n) { activation_forward(_gpu_handle, type, x, n); }

void Activation::activate(Ftype* output, Ftype* bias, int batch, int n, int size) {
  activation_bias_forward(_gpu_handle, type, output, bias, batch, n, size);
}

void Activation::gradient(Ftype* x, int n, Ftype* delta) { activation_gradient(_gpu_handle, type, x, n, delta); }

#define ORVA_ACTIVATION_VALUES(Name, Id)                                         \
  float Name::activate_kernel(float x) { return host_activate(Id, x); }         \
  float Name::gradient_kernel(float y) { return host_gradient(Id, y); }

ORVA_ACTIVATION_VALUES(LogisticActivation, 0)
ORVA_ACTIVATION_VALUES(ReluActivation, 1)
ORVA_ACTIVATION_VALUES(RelieActivation, 2)
ORVA_ACTIVATION_VALUES(LinearActivation, 3)
ORVA_ACTIVATION_VALUES(TanhActivation, 5)
ORVA_ACTIVATION_VALUES(LeakyActivation, 7)
ORVA_ACTIVATION_VALUES(EluActivation, 8)
ORVA_ACTIVATION_VALUES(LoggyActivation, 9)
ORVA_ACTIVATION_VALUES(HardtanActivation, 11)
ORVA_ACTIVATION_VALUES(Relu6Activation, 13)
ORVA_ACTIVATION_VALUES(Relu10Activation, 14)
ORVA_ACTIVATION_VALUES(MishActivation, 15)
#undef ORVA_ACTIVATION_VALUES

void activation_forward(void* handle, int type, Ftype* x, int n) {
  if (!activation_known(type))
    ORVA_THROW("activation_forward: unknown activation id %d", type);
  if (n < 0)
    ORVA_THROW("activation_forward: n = %d is negative", n);
  if (type == kActivationLinear || n == 0) return;
  ORVA_DISPATCH(handle, activate, type, x, n);
}

void activation_bias_forward(void* handle, int type, Ftype* output, Ftype* bias, int batch, int n, int size) {
  if (!activation_known(type))
    ORVA_THROW("activation_bias_forward: unknown activation id %d", type);
  // The linear pass is the bias addition itself, so both stay bit-identical.
  if (type == kActivationLinear) {
    blas_add_bias(handle, output, bias, batch, n, size);
    return;
  }
  if (batch < 0 || n < 0 || size < 0)
    ORVA_THROW("activation_bias_forward: batch %d, filters %d, size %d must not be negative", batch, n, size);
  if (batch == 0 || n == 0 || size == 0) return;
  ORVA_DISPATCH(handle, add_bias_activate, type, output, bias, batch, n, size);
}

void activation_gradient(void* handle, int type, Ftype* x, int n, Ftype* delta) {
  if (!activation_known(type))
    ORVA_THROW("activation_gradient: unknown activation id %d", type);
  if (n < 0)
    ORVA_THROW("activation_gradient: n = %d is negative", n);
  if (type == kActivationLinear || n == 0) return;
  ORVA_DISPATCH(handle, gradient, type, x, n, delta);
}
