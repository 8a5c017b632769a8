#!/usr/bin/env bash
# Whole networks through ONNX and back: the networks of bench_peer (the convolution stack,
# the tiny-YOLO trunk, the face detector's trunk) written as engine descriptions with random
# weights, exported to ONNX by bench/orva_to_onnx.py, imported with `orva convert --onnx`,
# and run with `orva run` on one random input beside the engine's own run of the
# description. Where onnxruntime-node is installed under bench/node_modules
# (bench/peer_setup.sh), ONNX Runtime runs the same .onnx on the same input too.
#   scripts/onnx_networks.sh [--orva PATH] [--size N]
# Prints per network the relative L2 distance and the largest difference, over the largest
# value, of the imported network's output to the engine's and to ONNX Runtime's. The status
# is 1 when the imported network differs from the engine's own by more than 1e-2 relative L2.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
orva=$root/build/tools/orva
bench=${ORVA_PEER_BENCH_DIR:-$root/bench}
size=416
while [ $# -gt 0 ]; do
  case $1 in
    --orva) orva=$2; shift 2 ;;
    --size) size=$2; shift 2 ;;
    *) echo "usage: scripts/onnx_networks.sh [--orva PATH] [--size N]" >&2; exit 2 ;;
  esac
done
[ -f "$bench/orva_to_onnx.py" ] || { echo "onnx_networks: no exporter at $bench/orva_to_onnx.py; nothing to check" >&2; exit 0; }
[ -x "$orva" ] || { echo "onnx_networks: no program at $orva (build the orva_cli target)" >&2; exit 2; }
exec /usr/bin/python3 -u - "$orva" "$bench" "$size" <<'PY'
import os, re, subprocess, sys, tempfile
import numpy as np

orva, bench, size = sys.argv[1], sys.argv[2], int(sys.argv[3])
ort_dir = os.path.join(bench, 'node_modules', 'onnxruntime-node')

def conv(f, k, s, bn=True, act='leaky', groups=1, pad=None):
    return ('convolution', dict(filters=f, size=k, stride=s, bn=bn, act=act, groups=groups, pad=pad))

def pool(k, s):
    return ('maxpool', dict(size=k, stride=s))

def dw(c):
    return conv(c, 3, 1, bn=False, act=None, groups=c)

NETWORKS = [
    ('conv-stack', size, [conv(16, 3, 1), conv(32, 3, 2), conv(64, 3, 2), conv(128, 3, 2), conv(256, 3, 2),
                          conv(512, 3, 2), conv(1024, 3, 1), conv(256, 1, 1), conv(125, 1, 1, bn=False, act='linear')]),
    ('tiny-yolo', size, [conv(16, 3, 1), pool(2, 2), conv(32, 3, 1), pool(2, 2), conv(64, 3, 1), pool(2, 2),
                         conv(128, 3, 1), pool(2, 2), conv(256, 3, 1), pool(2, 2), conv(512, 3, 1), pool(2, 1),
                         conv(1024, 3, 1), conv(1024, 3, 1), conv(125, 1, 1, bn=False, act='linear')]),
    ('face', size + 2, [conv(16, 3, 1, bn=False, pad=0), pool(2, 2), dw(16), conv(32, 1, 1, bn=False), pool(2, 2),
                        dw(32), conv(64, 1, 1, bn=False), pool(2, 2), dw(64), conv(128, 1, 1, bn=False), pool(2, 2),
                        dw(128), conv(256, 1, 1, bn=False), pool(2, 2), dw(256), conv(512, 1, 1, bn=False), pool(2, 1),
                        conv(30, 1, 1, bn=False, act='linear')]),
]

def write_net(path_cfg, path_weights, side, layers, rng):
    cfg = ['[network]', 'width=%d' % side, 'height=%d' % side, 'channels=3', '']
    values, c = [], 3
    for kind, p in layers:
        cfg.append('[%s]' % kind)
        if kind == 'maxpool':
            cfg += ['size=%d' % p['size'], 'stride=%d' % p['stride'], '']
            continue
        f, k, g = p['filters'], p['size'], p['groups']
        cfg += ['filters=%d' % f, 'size=%d' % k, 'stride=%d' % p['stride'], 'batch_normalize=%d' % p['bn']]
        if p['act']:
            cfg.append('activation=' + p['act'])
        if g > 1:
            cfg.append('groups=%d' % g)
        if p['pad'] is not None:
            cfg.append('pad=%d' % p['pad'])
        cfg.append('')
        fan_in = c // g * k * k
        values.append(rng.uniform(-0.1, 0.1, f))                               # biases
        if p['bn']:
            values += [rng.uniform(0.5, 1.5, f), rng.uniform(-0.1, 0.1, f), rng.uniform(0.5, 1.5, f)]
        values.append(rng.uniform(-1, 1, f * fan_in) * np.sqrt(3.0 / fan_in))  # weights keeping the scale
        c = f
    with open(path_cfg, 'w') as fcfg:
        fcfg.write('\n'.join(cfg))
    with open(path_weights, 'wb') as fw:
        fw.write(np.array([0, 2, 0], np.int32).tobytes() + np.array([0], np.uint64).tobytes())
        fw.write(np.concatenate(values).astype(np.float32).tobytes())

def run(cmd, **kw):
    p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kw)
    if p.returncode:
        raise RuntimeError('%s: %s' % (' '.join(cmd[:2]), (p.stderr.strip().splitlines() or ['?'])[-1]))
    return p.stdout

ORT_JS = r'''
const ort = require(process.argv[2]);
const fs = require('fs');
(async () => {
  const [model, input, output, n, c, h, w] = process.argv.slice(3);
  const b = fs.readFileSync(input);
  const data = new Float32Array(b.buffer.slice(b.byteOffset, b.byteOffset + b.length));
  const s = await ort.InferenceSession.create(model, {executionProviders: ['cpu']});
  const out = await s.run({[s.inputNames[0]]: new ort.Tensor('float32', data, [+n, +c, +h, +w])});
  const y = out[s.outputNames[0]].data;
  fs.writeFileSync(output, Buffer.from(y.buffer, y.byteOffset, y.byteLength));
})().catch((e) => { console.error(e.message); process.exit(1); });
'''

def distance(a, b):
    a, b = a.astype(np.float64).ravel(), b.astype(np.float64).ravel()
    scale = max(np.max(np.abs(b)), 1e-30)
    return np.linalg.norm(a - b) / max(np.linalg.norm(b), 1e-30), np.max(np.abs(a - b)) / scale

rng = np.random.default_rng(28)
tmp = tempfile.mkdtemp(prefix='orva-onnx-nets-')
worst = 0.0
print('%-11s %-8s %-22s %s' % ('network', 'layers', 'imported vs engine', 'imported vs ONNX Runtime'))
for name, side, layers in NETWORKS:
    d = os.path.join(tmp, name)
    os.makedirs(d)
    cfg, weights, onnx_path, model = (os.path.join(d, f) for f in ('net.cfg', 'net.weights', 'net.onnx', 'net.orva'))
    write_net(cfg, weights, side, layers, rng)
    run(['/usr/bin/python3', os.path.join(bench, 'orva_to_onnx.py'), cfg, weights, onnx_path])
    run([orva, 'convert', '--onnx', onnx_path, '-o', model])
    x = rng.uniform(0, 1, (1, 3, side, side)).astype(np.float32)
    np.save(os.path.join(d, 'x.npy'), x)
    run([orva, 'run', '-m', cfg, '-w', weights, '--gpu', '-1', '--input', os.path.join(d, 'x.npy'), '-o', os.path.join(d, 'engine.npy')])
    run([orva, 'run', '-m', model, '--gpu', '-1', '--input', os.path.join(d, 'x.npy'), '-o', os.path.join(d, 'imported.npy')])
    engine, imported = np.load(os.path.join(d, 'engine.npy')), np.load(os.path.join(d, 'imported.npy'))
    rel, big = distance(imported, engine)
    worst = max(worst, rel)
    ort_text = 'not installed (bench/peer_setup.sh)'
    if os.path.isdir(ort_dir):
        x.tofile(os.path.join(d, 'x.f32'))
        js = os.path.join(tmp, 'ort_run.js')
        with open(js, 'w') as f:
            f.write(ORT_JS)
        run(['node', js, ort_dir, onnx_path, os.path.join(d, 'x.f32'), os.path.join(d, 'ort.f32'),
             '1', '3', str(side), str(side)])
        peer = np.fromfile(os.path.join(d, 'ort.f32'), np.float32)
        r2, b2 = distance(imported, peer)
        ort_text = 'rel L2 %.2e, max %.2e' % (r2, b2)
    layers_n = sum(1 for l in run([orva, 'info', '-m', model, '--gpu', '-1']).splitlines() if re.match(r'\s*\d+\s+[a-z]', l))
    print('%-11s %-8d rel L2 %.2e, max %.2e   %s' % (name, layers_n, rel, big, ort_text))
sys.exit(1 if worst > 1e-2 else 0)
PY
