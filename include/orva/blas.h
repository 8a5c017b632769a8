// The tensor operations of the layers, one header per job; this header gathers them.
#pragma once
#include "orva/elementwise.h"
#include "orva/gemm.h"
#include "orva/layout.h"
#include "orva/normalize.h"
#include "orva/quant.h"
#include "orva/softmax.h"
