#!/usr/bin/env bash
# The ONNX project's backend test cases (Debian's libonnx-testdata) through the importer and
# the engine:
#   scripts/onnx_conformance.sh [--quick] [--markdown] [--orva PATH] [NAME_PATTERN...]
# Every case under node/, pytorch-converted/, pytorch-operator/ and simple/ is converted with
# `orva convert --onnx` and run with `orva run` on its input_0.pb; the output is compared
# with output_0.pb. A case the importer refuses is counted with its reason, not as a failure;
# a case it accepts and gets wrong (or that fails to run) is a failure and the status is 1.
# Inputs past the first are the test's parameters (filters, scales, bounds): they are made
# initializers of the model before it is converted, as an exporter would have stored them.
# --quick runs a fixed handful of cases (the test command's stage); --markdown adds the
# per-operator table of docs/MODELS.md. The data: $ORVA_ONNX_TESTDATA, else the installed
# package, else the package's .deb unpacked into build/onnx-testdata.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
orva=$root/build/tools/orva
args=()
while [ $# -gt 0 ]; do
  case $1 in
    --orva) orva=$2; shift 2 ;;
    *) args+=("$1"); shift ;;
  esac
done
data=${ORVA_ONNX_TESTDATA:-/usr/share/libonnx-testdata/data}
if [ ! -d "$data" ]; then
  data=$root/build/onnx-testdata/usr/share/libonnx-testdata/data
  if [ ! -d "$data" ]; then
    tmp=$(mktemp -d)
    (cd "$tmp" && apt-get download libonnx-testdata >/dev/null 2>&1) || { echo "onnx_conformance: libonnx-testdata is neither installed nor downloadable" >&2; exit 2; }
    mkdir -p "$root/build/onnx-testdata"
    dpkg -x "$tmp"/libonnx-testdata_*.deb "$root/build/onnx-testdata"
    rm -rf "$tmp"
  fi
fi
[ -x "$orva" ] || { echo "onnx_conformance: no program at $orva (build the orva_cli target)" >&2; exit 2; }
# Debian's python3-onnx lives in the system interpreter.
exec /usr/bin/python3 -u - "$data" "$orva" "${args[@]+"${args[@]}"}" <<'PY'
import collections, fnmatch, os, subprocess, sys, tempfile
import numpy as np
import onnx
from onnx import numpy_helper

data, orva = sys.argv[1], sys.argv[2]
opts = [a for a in sys.argv[3:] if a.startswith('--')]
patterns = [a for a in sys.argv[3:] if not a.startswith('--')]
quick = '--quick' in opts
markdown = '--markdown' in opts
# A fixed handful covering a reader path each: parameters as inputs, opset 6 models, borders
# from auto_pad, folded batch normalisation, groups and dilation, pools, a flattened
# classifier head, and two refusals.
QUICK = ['node/test_basic_conv_with_padding', 'node/test_conv_with_autopad_same', 'node/test_maxpool_2d_pads',
         'node/test_softmax_axis_2', 'node/test_depthtospace_example', 'node/test_resize_upsample_scales_linear',
         'pytorch-converted/test_BatchNorm2d_eval', 'pytorch-converted/test_Conv2d_depthwise_strided',
         'pytorch-converted/test_Conv2d_dilated', 'pytorch-converted/test_PReLU_2d_multiparam',
         'pytorch-operator/test_operator_flatten', 'node/test_gemm_all_attributes', 'node/test_add']

# The engine keeps every tensor between layers in half precision (11 significant bits) and
# computes in float: each layer's output carries a relative rounding of up to 2^-11 and the
# errors of a few layers add up. A value passes when |got - want| <= 1e-2 (|want| + s),
# s being the largest |want| of the tensor: 1 % of the value, or of the tensor's scale
# where the value is near zero after cancellation.
RTOL = 1e-2

def cases():
    for suite in ('node', 'pytorch-converted', 'pytorch-operator', 'simple'):
        d = os.path.join(data, suite)
        for name in sorted(os.listdir(d)):
            key = suite + '/' + name
            if quick and key not in QUICK:
                continue
            if patterns and not any(fnmatch.fnmatch(key, p) or fnmatch.fnmatch(name, p) for p in patterns):
                continue
            yield key, os.path.join(d, name)

def operator(model):
    ops = sorted({n.op_type for n in model.graph.node if n.op_type not in ('Constant', 'Identity')})
    return '+'.join(ops) if ops else '(none)'

def read_pb(path):
    t = onnx.TensorProto()
    with open(path, 'rb') as f:
        t.ParseFromString(f.read())
    return numpy_helper.to_array(t)

def run(cmd):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    last = (p.stderr.strip().splitlines() or [''])[-1]
    return p.returncode, last

stats = collections.OrderedDict()
failures = 0
tmp = tempfile.mkdtemp(prefix='orva-onnx-')
for key, path in cases():
    try:
        model = onnx.load(os.path.join(path, 'model.onnx'))
    except Exception as e:  # a model the reference reader can't load is not ours to judge
        continue
    op = operator(model)
    s = stats.setdefault(op, {'cases': 0, 'accepted': 0, 'passed': 0, 'refused': collections.Counter()})
    s['cases'] += 1
    sets = sorted(d for d in os.listdir(path) if d.startswith('test_data_set_'))
    if not sets:
        s['refused']['no test data'] += 1
        continue
    ds = os.path.join(path, sets[0])
    inputs = sorted(f for f in os.listdir(ds) if f.startswith('input_'))
    outputs = sorted(f for f in os.listdir(ds) if f.startswith('output_'))
    init = {i.name for i in model.graph.initializer}
    graph_inputs = [i for i in model.graph.input if i.name not in init]
    if not inputs or len(outputs) != 1 or len(inputs) != len(graph_inputs):
        s['refused']['%d inputs and %d outputs' % (len(inputs), len(outputs))] += 1
        continue
    try:
        x = read_pb(os.path.join(ds, 'input_0.pb'))
        want = read_pb(os.path.join(ds, outputs[0])).astype(np.float64).ravel()
    except Exception:  # sequences, optionals, strings: not tensors of numbers
        s['refused']['input or output is not a tensor of numbers'] += 1
        continue
    if x.dtype != np.float32 or x.ndim < 2:
        s['refused']['input of %s %s' % (x.dtype, x.shape)] += 1
        continue
    # The engine's input tensor is half precision too: a case whose input changes by more
    # than 0.01 when rounded to half (10001 becomes 10000) tests what the engine can't hold.
    if np.any(np.abs(x.astype(np.float16).astype(np.float32) - x) > 0.01):
        s['refused']['input values beyond half precision'] += 1
        print('%-60s refused: input values beyond half precision' % key)
        continue
    # The parameters given as inputs become initializers.
    for vi, f in zip(graph_inputs[1:], inputs[1:]):
        t = numpy_helper.from_array(read_pb(os.path.join(ds, f)), vi.name)
        model.graph.initializer.append(t)
    onnx_path = os.path.join(tmp, 'model.onnx')
    onnx.save(model, onnx_path)
    orva_path = os.path.join(tmp, 'model.orva')
    rc, why = run([orva, 'convert', '--onnx', onnx_path, '-o', orva_path])
    if rc != 0 and (rc != 1 or not why.startswith('orva convert: ')):
        failures += 1  # a refusal is status 1 and one line; anything else is a fault
        print('%-60s FAILED to convert (status %d): %s' % (key, rc, why))
        continue
    if rc != 0:
        why = why.replace('orva convert: ', '').replace(onnx_path + ': ', '')
        s['refused'][why] += 1
        print('%-60s refused: %s' % (key, why))
        continue
    s['accepted'] += 1
    np.save(os.path.join(tmp, 'in.npy'), np.ascontiguousarray(x))
    rc, why = run([orva, 'run', '-m', orva_path, '--gpu', os.environ.get('ORVA_CONFORMANCE_GPU', '-1'),
                   '--input', os.path.join(tmp, 'in.npy'), '-o', os.path.join(tmp, 'out.npy')])
    if rc != 0:
        failures += 1
        print('%-60s FAILED to run: %s' % (key, why))
        continue
    got = np.load(os.path.join(tmp, 'out.npy')).astype(np.float64).ravel()
    if got.size != want.size:
        failures += 1
        print('%-60s FAILED: %d values, expected %d' % (key, got.size, want.size))
        continue
    scale = float(np.max(np.abs(want))) if want.size else 0.0
    err = np.abs(got - want)
    bound = RTOL * (np.abs(want) + scale)
    if not np.all(np.isfinite(got)) or np.any(err > bound):
        failures += 1
        i = int(np.argmax(err - bound))
        print('%-60s FAILED: value %d is %g, expected %g (largest error %g, tensor scale %g)'
              % (key, i, got[i], want[i], float(np.max(err)), scale))
        continue
    s['passed'] += 1
    print('%-60s passed (largest error %.3g of scale %.3g)' % (key, float(np.max(err)) if err.size else 0, scale))

print()
print('%-40s %6s %9s %7s  %s' % ('operator', 'cases', 'accepted', 'passed', 'refused (first reason)'))
for op, s in sorted(stats.items()):
    r = s['refused'].most_common(1)
    print('%-40s %6d %9d %7d  %s' % (op, s['cases'], s['accepted'], s['passed'],
                                     ('%d: %s' % (sum(s['refused'].values()), r[0][0])) if r else ''))
if markdown:
    # The operators the importer maps, each combination of them with its cases; the rest in
    # one line (the engine has no layer for them).
    mapped = {'Conv', 'BatchNormalization', 'Relu', 'Sigmoid', 'Tanh', 'HardSwish', 'Mish', 'LeakyRelu', 'PRelu',
              'Elu', 'HardSigmoid', 'Clip', 'MaxPool', 'AveragePool', 'GlobalAveragePool', 'GlobalMaxPool', 'Gemm',
              'MatMul', 'Softmax', 'Concat', 'Add', 'Sub', 'Mul', 'Div', 'Resize', 'Upsample', 'DepthToSpace',
              'Flatten', 'Reshape', 'Squeeze', 'Unsqueeze', 'Dropout', 'Pad', 'Shape', 'Gather', 'Cast', '(none)'}
    print()
    print('| Operator | Cases | Accepted | Passed | Refused: the most frequent reason |')
    print('|---|---|---|---|---|')
    other = collections.Counter()
    for op, s in sorted(stats.items()):
        if not set(op.split('+')) <= mapped and not s['accepted']:
            other['ops'] += 1
            other['cases'] += s['cases']
            continue
        r = s['refused'].most_common(1)
        why = ('%s (%d)' % (r[0][0], r[0][1]) if r[0][1] > 1 else r[0][0]) if r else ''
        print('| %s | %d | %d | %d | %s |' % (op, s['cases'], s['accepted'], s['passed'], why.replace('|', '/')))
    print('| %d other operators and combinations | %d | 0 | 0 | the engine has no layer for them |'
          % (other['ops'], other['cases']))
total = sum(s['cases'] for s in stats.values())
acc = sum(s['accepted'] for s in stats.values())
ok = sum(s['passed'] for s in stats.values())
print('\n%d cases: %d accepted, %d passed, %d failed, %d refused' % (total, acc, ok, failures, total - acc))
sys.exit(1 if failures else 0)
PY
