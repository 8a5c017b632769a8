// Activation functions by id and name, applied in place to tensors on the network's backend.
#pragma once
#include "orva/export.h"
#include "orva/float16.h"

ORVA_API_BEGIN

class Activation {
 public:
  Activation(int type, void* handle) : type(type), _gpu_handle(handle) {}
  virtual ~Activation() = default;
  // x[i] = f(x[i]); the linear activation launches nothing.
  virtual void activate(Ftype* x, int n);
  // output[(b * n + f) * size + i] = f(output[...] + bias[f])
  virtual void activate(Ftype* output, Ftype* bias, int batch, int n, int size);
  // delta[i] *= g(x[i]), x being the activated output.
  virtual void gradient(Ftype* x, int n, Ftype* delta);

  int type;
  void* _gpu_handle;
};

#define ORVA_ACTIVATION_CLASS(Name, Id)                               \
  class Name : public Activation {                                    \
   public:                                                            \
    explicit Name(void* handle) : Activation(Id, handle) {}           \
    ~Name() override = default;                                       \
    /* f(x) and g(y) of one value (rounded to half), as the host */   \
    /* backend computes them; the device uses its own tables.     */   \
    static float activate_kernel(float x);                            \
    static float gradient_kernel(float y);                            \
  };

ORVA_ACTIVATION_CLASS(LogisticActivation, 0)
ORVA_ACTIVATION_CLASS(ReluActivation, 1)
ORVA_ACTIVATION_CLASS(RelieActivation, 2)
ORVA_ACTIVATION_CLASS(LinearActivation, 3)
ORVA_ACTIVATION_CLASS(TanhActivation, 5)
ORVA_ACTIVATION_CLASS(LeakyActivation, 7)
ORVA_ACTIVATION_CLASS(EluActivation, 8)
ORVA_ACTIVATION_CLASS(LoggyActivation, 9)
ORVA_ACTIVATION_CLASS(HardtanActivation, 11)
ORVA_ACTIVATION_CLASS(Relu6Activation, 13)
ORVA_ACTIVATION_CLASS(Relu10Activation, 14)
ORVA_ACTIVATION_CLASS(MishActivation, 15)
ORVA_ACTIVATION_CLASS(SwishActivation, 16)
ORVA_ACTIVATION_CLASS(HswishActivation, 17)
ORVA_ACTIVATION_CLASS(HsigmoidActivation, 18)
#undef ORVA_ACTIVATION_CLASS

class ActivationType {
 public:
  // Id for one of the names (exact match), -1 otherwise or for null.
  static int type(const char* name);
  // New object for the id, owned by the caller; null for an id not in the table.
  static Activation* create(int id, void* handle);
};

// Launchers used by the class (and by layers that activate without an object). An id
// without a function throws std::runtime_error and launches nothing.
void activation_forward(void* handle, int type, Ftype* x, int n);
void activation_bias_forward(void* handle, int type, Ftype* output, Ftype* bias, int batch, int n, int size);
void activation_gradient(void* handle, int type, Ftype* x, int n, Ftype* delta);

ORVA_API_END
