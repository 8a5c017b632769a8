#!/usr/bin/env python3
"""Writes an ONNX model of an engine network, for running it in other runtimes.

    python3 bench/orva_to_onnx.py NET.cfg NET.weights OUT.onnx [--batch N] [--opset N]

NET.cfg is the engine's text description and NET.weights a weights-only file written for it
(20-byte header, then per convolution the biases, the normalisation record when
batch_normalize=1, and the weights, as 32-bit floats). Sections: [convolution], [maxpool]
(centred=1 too), [route] (channel concatenation; with groups, the group_id-th channel slice
of each source), [upsample] (nearest, whole stride), [resize] (bilinear), [shortcut] (alpha x
previous + beta x source of the same shape, then the activation), [attention] (a source's
features times the previous layer's per-channel factors), [activation], [yolo] and
[centernet]. A head is not exported: its input becomes one of the model's outputs
("output0", "output1", ... in head order), and the head's own decoding is left to the caller. Without heads the last layer is the one output, "output".
The batch dimension of the input "input" (N x C x H x W floats) and of the outputs is
symbolic unless --batch fixes it. Needs Debian's python3-onnx and python3-numpy.

The weights are what the engine computes with: every value rounded to half as it is read,
normalisation folded into the biases and weights in half exactly as the engine folds it at
load time (bias - half(mean * scale / (sqrt(var) + 1e-5)), weight * half(scale /
(sqrt(var) + 1e-5)), float operations in that order). A convolution without an activation
adds no bias (the engine skips the bias there), and leaky uses the half slope 0.0999755859375.

Max-pool keeps the engine's output size (in + 2 pad) / stride: the end padding is chosen so
that ONNX's floor((in + begin + end - size) / stride) + 1 gives it, and an explicit Pad node
with minus infinity takes the padding when it would reach the kernel size (ONNX refuses
that as a pool attribute). The centred form, (in + 2 pad - size) / stride + 1, is ONNX's own.
"""
import argparse
import sys

import numpy as np

try:
    import onnx
    from onnx import TensorProto, helper, numpy_helper
except ImportError:  # pragma: no cover
    sys.exit("orva_to_onnx: needs python3-onnx (apt-get install python3-onnx)")

LEAKY_SLOPE = float(np.float16(0.1))


def read_cfg(path):
    """Sections of an engine description as (name, {key: value}) in file order."""
    sections = []
    with open(path, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            line = raw.split("#", 1)[0].strip()
            if not line or line.startswith(";"):
                continue
            if line.startswith("["):
                if not line.endswith("]"):
                    raise ValueError(f"{path}:{number}: malformed section header {raw.strip()!r}")
                sections.append((line[1:-1], {}))
                continue
            sep = min((i for i in (line.find("="), line.find(":")) if i >= 0), default=-1)
            if sep < 0 or not sections:
                raise ValueError(f"{path}:{number}: not a key=value line: {raw.strip()!r}")
            sections[-1][1][line[:sep].strip()] = line[sep + 1:].strip()
    if not sections or sections[0][0] != "network":
        raise ValueError(f"{path}: the first section must be [network]")
    return sections


def ival(sec, key, default, where):
    text = sec.get(key)
    if text is None:
        return default
    try:
        return int(text)
    except ValueError:
        raise ValueError(f"{where}: {key}={text!r} is not an integer") from None


class Weights:
    """The weights-only file read value by value, each rounded to half."""

    def __init__(self, path):
        data = open(path, "rb").read()
        if len(data) < 20:
            raise ValueError(f"{path}: {len(data)} bytes, shorter than the 20-byte header")
        if (len(data) - 20) % 4:
            raise ValueError(f"{path}: {len(data) - 20} bytes after the header, not whole floats")
        self.path = path
        self.values = np.frombuffer(data, dtype="<f4", offset=20).astype(np.float16)
        self.pos = 0

    def take(self, n, what):
        if self.pos + n > len(self.values):
            raise ValueError(f"{self.path}: ends at value {len(self.values)}, {what} needs {n} from {self.pos}")
        out = self.values[self.pos:self.pos + n]
        self.pos += n
        return out


def fold(bias, scale, mean, var, weights):
    """The engine's load-time folding: float operations on the half values, half results."""
    f32 = np.float32
    denom = np.sqrt(var.astype(f32)) + f32(0.00001)
    shift = ((mean.astype(f32) * scale.astype(f32)) / denom).astype(np.float16)
    bias = (bias.astype(f32) - shift.astype(f32)).astype(np.float16)
    factor = (scale.astype(f32) / denom).astype(np.float16)
    weights = (weights.astype(f32) * factor.astype(f32)[:, None]).astype(np.float16)
    return bias, weights


def activation_nodes(name, x, y, where):
    """Nodes computing activation `name` from x into y (None when it is the identity)."""
    if name == "linear":
        return None
    if name == "leaky":
        return [helper.make_node("LeakyRelu", [x], [y], alpha=LEAKY_SLOPE)]
    simple = {"relu": "Relu", "logistic": "Sigmoid", "tanh": "Tanh", "hswish": "HardSwish"}
    if name in simple:
        return [helper.make_node(simple[name], [x], [y])]
    if name == "relu6":
        return [helper.make_node("Relu", [x], [y + "_r"]), helper.make_node("Min", [y + "_r", "six"], [y])]
    if name == "hsigmoid":
        return [helper.make_node("HardSigmoid", [x], [y], alpha=1.0 / 6, beta=0.5)]
    if name == "swish":
        return [helper.make_node("Sigmoid", [x], [y + "_s"]), helper.make_node("Mul", [x, y + "_s"], [y])]
    raise ValueError(f"{where}: activation {name!r} has no ONNX form here")


def convert(cfg_path, weights_path, batch=None, opset=None):
    sections = read_cfg(cfg_path)
    net = sections[0][1]
    w = ival(net, "width", 0, "[network]")
    h = ival(net, "height", 0, "[network]")
    c = ival(net, "channels", 0, "[network]")
    if min(w, h, c) <= 0:
        raise ValueError(f"{cfg_path}: [network] needs positive width, height and channels, has {w}, {h}, {c}")
    shape_in = [c, h, w]
    wts = Weights(weights_path)
    nodes, inits = [], []
    layers = []  # per layer: (tensor, channels, height, width), None for a head
    heads = []   # the heads' inputs, in order
    x = "input"
    for index, (name, sec) in enumerate(sections[1:]):
        where = f"{cfg_path}: layer {index} [{name}]"
        out = f"l{index}"
        if name == "convolution":
            filters = ival(sec, "filters", 1, where)
            size = ival(sec, "size", 1, where)
            stride = ival(sec, "stride", 1, where)
            groups = ival(sec, "groups", 1, where)
            dilation = ival(sec, "dilation", 1, where)
            pad = ival(sec, "pad", ((size - 1) * dilation) // 2, where)
            bn = ival(sec, "batch_normalize", 0, where)
            act = sec.get("activation")
            if min(filters, size, stride, groups, dilation) <= 0 or pad < 0 or c % groups or filters % groups:
                raise ValueError(f"{where}: filters {filters}, size {size}, stride {stride}, groups {groups}, "
                                 f"dilation {dilation}, pad {pad} on {c} channels")
            k = (size - 1) * dilation + 1
            ow, oh = (w + 2 * pad - k) // stride + 1, (h + 2 * pad - k) // stride + 1
            if ow <= 0 or oh <= 0:
                raise ValueError(f"{where}: kernel {k} larger than the padded {w} x {h} image")
            per_filter = c // groups * size * size
            bias = wts.take(filters, f"{where} biases")
            if bn:
                scale = wts.take(filters, f"{where} scales")
                mean = wts.take(filters, f"{where} means")
                var = wts.take(filters, f"{where} variances")
            weights = wts.take(filters * per_filter, f"{where} weights").reshape(filters, per_filter)
            if bn:
                bias, weights = fold(bias, scale, mean, var, weights)
            kernel = weights.astype(np.float32).reshape(filters, c // groups, size, size)
            inits.append(numpy_helper.from_array(kernel, out + "_w"))
            inputs = [x, out + "_w"]
            if act is not None:  # without an activation the engine applies no bias
                inits.append(numpy_helper.from_array(bias.astype(np.float32), out + "_b"))
                inputs.append(out + "_b")
            conv_out = out if act in (None, "linear") else out + "_c"
            nodes.append(helper.make_node("Conv", inputs, [conv_out], kernel_shape=[size, size],
                                          strides=[stride, stride], pads=[pad] * 4,
                                          dilations=[dilation, dilation], group=groups))
            if conv_out != out:
                nodes += activation_nodes(act, conv_out, out, where)
                if act == "relu6" and not any(i.name == "six" for i in inits):
                    inits.append(numpy_helper.from_array(np.array(6, np.float32), "six"))
            w, h, c = ow, oh, filters
        elif name == "maxpool":
            size = ival(sec, "size", 1, where)
            stride = ival(sec, "stride", size, where)
            pad = ival(sec, "pad", (size - 1) // 2, where)
            if size <= 0 or stride <= 0 or pad < 0:
                raise ValueError(f"{where}: size {size}, stride {stride}, pad {pad}")
            if ival(sec, "centred", 0, where):
                if pad >= size:
                    raise ValueError(f"{where}: centred windows of size {size} with pad {pad}")
                ow, oh = (w + 2 * pad - size) // stride + 1, (h + 2 * pad - size) // stride + 1
                if ow <= 0 or oh <= 0:
                    raise ValueError(f"{where}: no output from a {w} x {h} input")
                nodes.append(helper.make_node("MaxPool", [x], [out], kernel_shape=[size, size],
                                              strides=[stride, stride], pads=[pad] * 4))
                w, h = ow, oh
                layers.append((out, c, h, w))
                x = out
                continue
            ow, oh = (w + 2 * pad) // stride, (h + 2 * pad) // stride
            if ow <= 0 or oh <= 0:
                raise ValueError(f"{where}: no output from a {w} x {h} input")
            # end padding so that floor((in + pad + end - size) / stride) + 1 is the engine's size
            end_w, end_h = (ow - 1) * stride + size - w - pad, (oh - 1) * stride + size - h - pad
            if min(end_w, end_h) < 0:
                raise ValueError(f"{where}: the engine's output drops input columns ONNX would keep "
                                 f"(end padding {end_w}, {end_h})")
            pads = [pad, pad, end_h, end_w]
            src = x
            if max(pads) >= size:  # ONNX refuses pads as large as the kernel: pad explicitly
                inits.append(numpy_helper.from_array(np.array([0, 0, pad, pad, 0, 0, end_h, end_w], np.int64),
                                                     out + "_pads"))
                inits.append(numpy_helper.from_array(np.array(-np.inf, np.float32), out + "_ninf"))
                nodes.append(helper.make_node("Pad", [x, out + "_pads", out + "_ninf"], [out + "_p"],
                                              mode="constant"))
                src, pads = out + "_p", [0, 0, 0, 0]
            nodes.append(helper.make_node("MaxPool", [src], [out], kernel_shape=[size, size],
                                          strides=[stride, stride], pads=pads))
            w, h = ow, oh
        elif name == "route":
            groups = ival(sec, "groups", 1, where)
            group_id = ival(sec, "group_id", 0, where)
            if groups <= 0 or not 0 <= group_id < groups:
                raise ValueError(f"{where}: group_id {group_id} of {groups} groups")
            parts = []
            for item in sec.get("layers", "").split(","):
                try:
                    src = int(item)
                except ValueError:
                    raise ValueError(f"{where}: layers={sec.get('layers')!r} is not a list of layer indexes") from None
                src = src + index if src < 0 else src
                if not 0 <= src < index or layers[src] is None:
                    raise ValueError(f"{where}: layers names {item.strip()}, not an earlier layer with an image output")
                name_s, cs, hs, ws = layers[src]
                if cs % groups:
                    raise ValueError(f"{where}: {groups} groups do not divide the {cs} channels of layer {src}")
                if parts and (hs, ws) != (parts[0][2], parts[0][3]):
                    raise ValueError(f"{where}: layer {src} is {ws} x {hs}, layer {parts[0][4]} {parts[0][3]} x {parts[0][2]}")
                if groups > 1:  # the group's channels of this source
                    part = f"{out}_g{len(parts)}"
                    inits.append(numpy_helper.from_array(np.array([group_id * cs // groups], np.int64), part + "_lo"))
                    inits.append(numpy_helper.from_array(np.array([(group_id + 1) * cs // groups], np.int64), part + "_hi"))
                    inits.append(numpy_helper.from_array(np.array([1], np.int64), part + "_axis"))
                    nodes.append(helper.make_node("Slice", [name_s, part + "_lo", part + "_hi", part + "_axis"], [part]))
                    name_s = part
                parts.append((name_s, cs // groups, hs, ws, src))
            if len(parts) == 1:
                nodes.append(helper.make_node("Identity", [parts[0][0]], [out]))
            else:
                nodes.append(helper.make_node("Concat", [p[0] for p in parts], [out], axis=1))
            c, h, w = sum(p[1] for p in parts), parts[0][2], parts[0][3]
        elif name == "upsample":
            stride = ival(sec, "stride", 2, where)
            if stride <= 0:
                raise ValueError(f"{where}: stride {stride}")
            inits.append(numpy_helper.from_array(np.array([1, 1, stride, stride], np.float32), out + "_scales"))
            # output pixel (y, x) takes input (y / stride, x / stride), rounded down
            nodes.append(helper.make_node("Resize", [x, "", out + "_scales"], [out], mode="nearest",
                                          coordinate_transformation_mode="asymmetric", nearest_mode="floor"))
            w, h = w * stride, h * stride
        elif name == "shortcut":
            src = ival(sec, "from", 0, where)
            src = src + index if src < 0 else src
            if not 0 <= src < index or layers[src] is None or layers[src][1:] != (c, h, w):
                raise ValueError(f"{where}: from={src} is not an earlier layer of the previous one's shape "
                                 f"{w} x {h} x {c}")
            terms = []
            for term, key in ((x, "alpha"), (layers[src][0], "beta")):
                try:
                    factor = float(sec.get(key, "1"))
                except ValueError:
                    raise ValueError(f"{where}: {key}={sec.get(key)!r} is not a number") from None
                if factor != 1:
                    inits.append(numpy_helper.from_array(np.array(factor, np.float32), f"{out}_{key}"))
                    nodes.append(helper.make_node("Mul", [term, f"{out}_{key}"], [f"{out}_{key}_t"]))
                    term = f"{out}_{key}_t"
                terms.append(term)
            act = sec.get("activation", "linear")
            sum_out = out if act == "linear" else out + "_s"
            nodes.append(helper.make_node("Add", terms, [sum_out]))
            if sum_out != out:
                nodes += activation_nodes(act, sum_out, out, where)
        elif name == "resize":
            stride = ival(sec, "stride", 2, where)
            ow, oh = ival(sec, "width", 0, where), ival(sec, "height", 0, where)
            corners, half_pixel = ival(sec, "align_corners", 0, where), ival(sec, "half_pixel", 0, where)
            if (ow == 0) != (oh == 0) or min(ow, oh) < 0 or (ow == 0 and stride <= 0) or (corners and half_pixel):
                raise ValueError(f"{where}: width {ow}, height {oh}, stride {stride}, align_corners {corners}, "
                                 f"half_pixel {half_pixel}")
            rule = "align_corners" if corners else "half_pixel" if half_pixel else "asymmetric"
            if ow == 0:
                ow, oh = w * stride, h * stride
                inits.append(numpy_helper.from_array(np.array([1, 1, stride, stride], np.float32), out + "_scales"))
                inputs = [x, "", out + "_scales"]
            else:  # the sizes' batch and channels follow the input's
                inits.append(numpy_helper.from_array(np.array([oh, ow], np.int64), out + "_hw"))
                for value, tag in ((0, "zero1"), (2, "two1")):
                    if not any(i.name == tag for i in inits):
                        inits.append(numpy_helper.from_array(np.array([value], np.int64), tag))
                nodes.append(helper.make_node("Shape", [x], [out + "_shape"]))
                nodes.append(helper.make_node("Slice", [out + "_shape", "zero1", "two1"], [out + "_nc"]))
                nodes.append(helper.make_node("Concat", [out + "_nc", out + "_hw"], [out + "_to"], axis=0))
                inputs = [x, "", "", out + "_to"]
            nodes.append(helper.make_node("Resize", inputs, [out], mode="linear", coordinate_transformation_mode=rule))
            w, h = ow, oh
        elif name == "attention":  # features of layer `from` times one factor per channel
            src = ival(sec, "from", 0, where)
            src = src + index if src < 0 else src
            if not 0 <= src < index or layers[src] is None or layers[src][1] != c * h * w:
                raise ValueError(f"{where}: from={src} is not an earlier layer with {c * h * w} channels")
            nodes.append(helper.make_node("Mul", [layers[src][0], x], [out]))
            c, h, w = layers[src][1:]
        elif name == "activation":
            act = sec.get("activation", "linear")
            nodes += activation_nodes(act, x, out, where) or [helper.make_node("Identity", [x], [out])]
        elif name == "yolo" or name == "centernet":
            heads.append((x, c, h, w))
            layers.append(None)  # decoded in the caller
            continue
        else:
            raise ValueError(f"{where}: no ONNX form for this section here")
        layers.append((out, c, h, w))
        x = out
    if wts.pos != len(wts.values):
        raise ValueError(f"{weights_path}: {len(wts.values)} values, the description takes {wts.pos}")
    n = batch if batch else "batch"
    if heads:
        results = [(f"output{i}",) + head[1:] for i, head in enumerate(heads)]
        nodes += [helper.make_node("Identity", [head[0]], [r[0]]) for head, r in zip(heads, results)]
    else:
        results = [("output", c, h, w)]
        nodes.append(helper.make_node("Identity", [x], ["output"]))
    graph = helper.make_graph(nodes, "orva", [helper.make_tensor_value_info("input", TensorProto.FLOAT, [n] + shape_in)],
                              [helper.make_tensor_value_info(r[0], TensorProto.FLOAT, [n] + list(r[1:]))
                               for r in results], inits)
    if opset is None:  # 13 unless HardSwish needs 14
        opset = 14 if any(node.op_type == "HardSwish" for node in nodes) else 13
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)], producer_name="orva")
    onnx.checker.check_model(model)
    return model


def main():
    p = argparse.ArgumentParser(description="Writes an ONNX model of an engine description and its weights.")
    p.add_argument("cfg")
    p.add_argument("weights")
    p.add_argument("out")
    p.add_argument("--batch", type=int, default=0, help="fixed batch size (default: symbolic)")
    p.add_argument("--opset", type=int, default=0, help="operator set (default: 13, 14 with hard-swish)")
    a = p.parse_args()
    try:
        model = convert(a.cfg, a.weights, a.batch or None, a.opset or None)
    except (OSError, ValueError) as e:
        sys.exit(f"orva_to_onnx: {e}")
    onnx.save(model, a.out)


if __name__ == "__main__":
    main()
