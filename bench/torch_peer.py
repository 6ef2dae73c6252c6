#!/usr/bin/python3
"""PyTorch peer of forward_bench: runs a net description + weights file on
torch and times it.

  torch_peer.py --dir DIR [--nets N...] [--batches B...] [--modes eager frozen]
                [--threads 2] [--min-time 2.0] [--repetitions 3] [--ours FILE]

For each net N it reads DIR/N.json and DIR/N.bin (as dump_bench_models writes
them), builds the equivalent torch graph generically from the layer list, and:
  - when DIR/N.io.bin exists, runs its "input" blob and prints the largest
    absolute difference to every other blob of that file (our outputs);
  - times the forward pass at each batch (eval, inference_mode, warm-up),
    as the median img/s over repetitions of at least --min-time seconds,
    in two modes: "eager" (the nn graph as built) and "frozen" (the same
    traced to TorchScript, frozen and optimized for inference).
With --ours (the JSON report of forward_bench) it prints the comparison table.
"""

import argparse
import json
import math
import os
import struct
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

# Figures measured earlier on this machine with ONNX Runtime on the same
# shapes (batch 8, 2 threads); recorded, not measured in this run.
RECORDED_ORT = {("resnet18", 8): 120.0, ("mobilenetv2", 8): 420.0}


# --- The weights file (layout in runtime/weights_file.h) -------------------

def read_weights(path):
    """Returns {(layer, blob): np.ndarray} from a weights file."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"QZWT":
        raise ValueError(f"{path}: not a weights file")
    version, count, _ = struct.unpack_from("<III", data, 4)
    if version != 1:
        raise ValueError(f"{path}: weights file version {version}")
    pos = 16
    blobs = {}

    def take(n):
        nonlocal pos
        if pos + n > len(data):
            raise ValueError(f"{path}: truncated at byte {pos}")
        chunk = data[pos:pos + n]
        pos += n
        return chunk

    for _ in range(count):
        layer = take(struct.unpack("<I", take(4))[0]).decode()
        name = take(struct.unpack("<I", take(4))[0]).decode()
        rank = struct.unpack("<I", take(4))[0]
        dims = struct.unpack(f"<{rank}i", take(4 * rank))
        (etype,) = struct.unpack("<I", take(4))
        if etype != 0:
            raise ValueError(f"{path}: blob {layer}/{name}: element type {etype}")
        (n,) = struct.unpack("<Q", take(8))
        values = np.frombuffer(take(4 * n), dtype="<f4").astype(np.float32)
        blobs[(layer, name)] = values.reshape(dims)
    return blobs


# --- Parameters ------------------------------------------------------------

def pair(p, key, key_h, key_w, default):
    """A (h, w) pair from key_h/key_w or a scalar key."""
    if key_h in p or key_w in p:
        return int(p.get(key_h, default)), int(p.get(key_w, default))
    v = p.get(key, default)
    if isinstance(v, list):
        return (int(v[0]), int(v[-1]))
    return int(v), int(v)


def pads(p):
    """(top, bottom, left, right)."""
    if any(k in p for k in ("pad_top", "pad_bottom", "pad_left", "pad_right", "pad_h", "pad_w")):
        ph, pw = int(p.get("pad_h", 0)), int(p.get("pad_w", 0))
        return (int(p.get("pad_top", ph)), int(p.get("pad_bottom", ph)),
                int(p.get("pad_left", pw)), int(p.get("pad_right", pw)))
    v = int(p.get("pad", 0))
    return v, v, v, v


def pool_ceil_mode(p):
    """Whether the output size of a pooling rounds up."""
    mode = p.get("round_mode", p.get("ceil_mode", "floor"))
    if isinstance(mode, bool):
        return mode
    if isinstance(mode, (int, float)):
        return int(mode) == 0  # 0 = ceil, 1 = floor
    return str(mode).lower() in ("ceil", "up")


# --- The graph -------------------------------------------------------------

class JsonNet(torch.nn.Module):
    """Runs the layers of a net description in order over named tensors."""

    def __init__(self, desc, weights, keep=()):
        super().__init__()
        self.input_names = [i["name"] for i in desc["inputs"]]
        self.mods = torch.nn.ModuleDict()
        self.steps = []
        for layer in desc["layers"]:
            fn = self._make(layer, weights)
            self.steps.append((fn, list(layer["inputs"]), list(layer["outputs"])))
        # A tensor is dropped after its last reader unless it is kept: net
        # outputs (never read) and the names asked for.
        last_read = {}
        for i, (_, ins, _) in enumerate(self.steps):
            for name in ins:
                last_read[name] = i
        self.keep = set(keep)
        for i, (_, _, outs) in enumerate(self.steps):
            for name in outs:
                if last_read.get(name, -1) <= i:
                    self.keep.add(name)
        self.drop_after = [[n for n in set(ins) if last_read[n] == i and n not in self.keep]
                           for i, (_, ins, _) in enumerate(self.steps)]

    def forward(self, *inputs):
        t = dict(zip(self.input_names, inputs))
        for (fn, ins, outs), drop in zip(self.steps, self.drop_after):
            r = fn(*[t[n] for n in ins])
            if len(outs) == 1:
                t[outs[0]] = r
            else:
                t.update(zip(outs, r))
            for n in drop:
                if n not in outs:
                    del t[n]
        return {n: t[n] for n in self.keep if n in t}

    def _make(self, layer, weights):
        name, kind = layer["name"], layer["type"]
        p = layer.get("param", {}) or {}
        inplace = layer["inputs"][:1] == layer["outputs"][:1]

        def w(blob):
            return torch.from_numpy(weights[(name, blob)].copy())

        def has(blob):
            return (name, blob) in weights

        if kind == "Convolution":
            weight = w("weight")
            group = int(p.get("group", 1))
            cout, cin_g, kh, kw = weight.shape
            stride = pair(p, "stride", "stride_h", "stride_w", 1)
            dilation = pair(p, "dilation", "dilation_h", "dilation_w", 1)
            top, bottom, left, right = pads(p)
            symmetric = top == bottom and left == right
            conv = torch.nn.Conv2d(cin_g * group, cout, (kh, kw), stride,
                                   (top, left) if symmetric else 0, dilation, group,
                                   bias=has("bias"))
            conv.weight.data.copy_(weight)
            if has("bias"):
                conv.bias.data.copy_(w("bias"))
            self.mods[name] = conv
            if symmetric:
                return conv
            return lambda x: conv(F.pad(x, (left, right, top, bottom)))
        if kind == "Pooling":
            kind_max = str(p.get("pool", "max")).lower() == "max"
            if p.get("global_pooling", False):
                return (lambda x: F.adaptive_max_pool2d(x, 1)) if kind_max else \
                    (lambda x: F.adaptive_avg_pool2d(x, 1))
            k = pair(p, "kernel_size", "kernel_h", "kernel_w", 1)
            s = pair(p, "stride", "stride_h", "stride_w", 1)
            top, bottom, left, right = pads(p)
            if top != bottom or left != right:
                raise NotImplementedError(f"{name}: asymmetric pooling pads")
            ceil = pool_ceil_mode(p)
            if kind_max:
                return torch.nn.MaxPool2d(k, s, (top, left), ceil_mode=ceil)
            return torch.nn.AvgPool2d(k, s, (top, left), ceil_mode=ceil,
                                      count_include_pad=bool(p.get("count_include_pad", True)))
        if kind == "InnerProduct":
            weight = w("weight")
            fc = torch.nn.Linear(weight.shape[1], weight.shape[0], bias=has("bias"))
            fc.weight.data.copy_(weight)
            if has("bias"):
                fc.bias.data.copy_(w("bias"))
            self.mods[name] = fc
            return lambda x: fc(torch.flatten(x, 1))
        if kind == "ReLU":
            slope = float(p.get("negative_slope", 0.0))
            if slope != 0.0:
                return lambda x: F.leaky_relu(x, slope, inplace=inplace)
            return lambda x: F.relu(x, inplace=inplace)
        if kind == "ReLUX":
            top_value = float(p.get("threshold", 6.0))
            return lambda x: F.hardtanh(x, 0.0, top_value, inplace=inplace)
        if kind == "Eltwise":
            op = str(p.get("operation", "sum")).lower()
            coeff = p.get("coeff", [])
            if op == "sum" and coeff:
                return lambda *xs: sum(c * x for c, x in zip(coeff, xs))
            if op == "sum":
                return lambda *xs: sum(xs[1:], xs[0])
            if op == "prod":
                return lambda *xs: math.prod(xs[1:], start=xs[0])
            if op == "max":
                return lambda *xs: torch.stack(xs).amax(0)
            raise NotImplementedError(f"{name}: Eltwise {op}")
        if kind == "BatchNormal":
            mean, var = w("mean"), w("variance")
            scale = w("scale") if has("scale") else None
            bias = w("bias") if has("bias") else None
            eps = float(p.get("eps", 1e-5))
            return lambda x: F.batch_norm(x, mean, var, scale, bias, False, 0.0, eps)
        if kind == "Softmax":
            axis = int(p.get("axis", 1))
            return lambda x: torch.softmax(x, axis)
        if kind == "Flatten":
            axis = int(p.get("axis", 1))
            return lambda x: torch.flatten(x, axis)
        if kind == "Concat":
            axis = int(p.get("axis", 1))
            return lambda *xs: torch.cat(xs, axis)
        raise NotImplementedError(f"{name}: layer type {kind}")


# --- Runs ------------------------------------------------------------------

def frozen(net, example):
    """The TorchScript form of net, frozen and optimized for inference (weights
    prepacked for the CPU kernels), the fastest plain-PyTorch way to run it."""
    with torch.no_grad():
        traced = torch.jit.trace(net, (example,), strict=False)
        return torch.jit.optimize_for_inference(torch.jit.freeze(traced.eval()))


def check(net, io):
    """Largest absolute difference between torch and our outputs."""
    x = torch.from_numpy(io[("", "input")].copy())
    with torch.inference_mode():
        out = net(x)
    lines = []
    for (_, name), ref in io.items():
        if name == "input":
            continue
        if name not in out:
            lines.append(f"    {name}: not produced by the torch graph")
            continue
        got = out[name].numpy()
        if got.shape != ref.shape:
            lines.append(f"    {name}: shape {list(got.shape)} here, {list(ref.shape)} ours")
            continue
        diff = float(np.max(np.abs(got - ref)))
        peak = float(np.max(np.abs(ref)))
        lines.append(f"    {name}: max abs diff {diff:.3g} (max abs value {peak:.3g})")
    return lines


def time_forward(net, shape, min_time, repetitions):
    """Median and relative spread (stddev / median) of img/s over repetitions
    of at least min_time seconds each."""
    x = torch.from_numpy(np.random.default_rng(1).uniform(-1, 1, shape).astype(np.float32))
    rates = []
    with torch.inference_mode():
        for _ in range(3):
            net(x)
        for _ in range(repetitions):
            runs, start = 0, time.perf_counter()
            while True:
                net(x)
                runs += 1
                elapsed = time.perf_counter() - start
                if elapsed >= min_time and runs >= 5:
                    break
            rates.append(shape[0] * runs / elapsed)
    median = float(np.median(rates))
    return median, float(np.std(rates, ddof=1)) / median if len(rates) > 1 else 0.0


def ours_from_report(path):
    """{(net, batch): (img/s, spread) or error text} from forward_bench's JSON
    report: the median over repetitions when there are several."""
    with open(path) as f:
        report = json.load(f)
    runs, medians, stddevs = {}, {}, {}
    for b in report.get("benchmarks", []):
        parts = b.get("run_name", b["name"]).split("/")
        if len(parts) < 3 or parts[0] != "BM_Forward":
            continue
        key = (parts[1], int(parts[2].split(":")[1]))
        if b.get("error_occurred"):
            runs[key] = b.get("error_message", "error")
        elif b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                medians[key] = float(b["img/s"])
            elif b.get("aggregate_name") == "stddev":
                stddevs[key] = float(b["img/s"])
        elif "img/s" in b and not isinstance(runs.get(key), str):
            runs[key] = (float(b["img/s"]), 0.0)
    for key, median in medians.items():
        runs[key] = (median, stddevs.get(key, 0.0) / median)
    return runs


def rate(v):
    """The img/s of a (rate, spread) pair, or None."""
    return v[0] if isinstance(v, tuple) else None


def cell(v, width=8):
    r = rate(v) if isinstance(v, tuple) else v
    return f"{r:{width}.1f}" if isinstance(r, float) else f"{'-':>{width}}"


def spread(v):
    return f"{100 * v[1]:5.1f}%" if isinstance(v, tuple) else f"{'-':>6}"


def ratio(a, b, width):
    return f"{a / b:{width}.2f}" if a and b else f"{'-':>{width}}"


MODES = {"eager": "torch eager", "frozen": "torch frozen TorchScript"}


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--dir", required=True)
    ap.add_argument("--nets", nargs="+", default=["resnet18", "mobilenetv2"])
    ap.add_argument("--batches", nargs="+", type=int, default=[1, 8])
    ap.add_argument("--modes", nargs="+", choices=list(MODES), default=list(MODES))
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--min-time", type=float, default=2.0,
                    help="seconds per repetition")
    ap.add_argument("--repetitions", type=int, default=3)
    ap.add_argument("--ours", help="forward_bench JSON report")
    args = ap.parse_args()

    torch.set_num_threads(args.threads)
    kept = os.environ.get("MALLOC_MMAP_MAX_") == "0"
    malloc = "malloc keeps freed memory" if kept else "malloc as by default"
    print(f"torch {torch.__version__}, {torch.get_num_threads()} threads, float32, NCHW, {malloc}")
    peer = {}  # (mode, net, batch) -> (img/s, spread)
    for name in args.nets:
        with open(os.path.join(args.dir, name + ".json")) as f:
            desc = json.load(f)
        weights = read_weights(os.path.join(args.dir, name + ".bin"))
        io_path = os.path.join(args.dir, name + ".io.bin")
        io = read_weights(io_path) if os.path.exists(io_path) else None
        eager = JsonNet(desc, weights, ["fc"] if io else []).eval()
        item = list(desc["inputs"][0]["dims"])[1:]
        for mode in args.modes:
            net = eager if mode == "eager" else frozen(eager, torch.zeros([1] + item))
            if io:
                print(f"{name}, {MODES[mode]} vs ours on the same input (batch 2):")
                print("\n".join(check(net, io)))
            else:
                print(f"{name}: no reference outputs from our runtime, outputs not compared")
            for batch in args.batches:
                v = time_forward(net, [batch] + item, args.min_time, args.repetitions)
                peer[(mode, name, batch)] = v
                print(f"{name} batch {batch}: {MODES[mode]} {v[0]:.1f} img/s"
                      f" (spread {100 * v[1]:.1f}%)")
            sys.stdout.flush()

    if not args.ours:
        return
    ours = ours_from_report(args.ours)
    print()
    head = f"{'net':<12} {'batch':>5} {'ours':>8} {'spread':>6}"
    for mode in args.modes:
        head += f" {mode:>8} {'spread':>6} {'ours/' + mode:>12}"
    print(head + f" {'ORT rec.':>8} {'ours/ORT':>8}")
    notes = []
    for name in args.nets:
        for batch in args.batches:
            o = ours.get((name, batch))
            line = f"{name:<12} {batch:>5} {cell(o)} {spread(o)}"
            for mode in args.modes:
                t = peer.get((mode, name, batch))
                line += f" {cell(t)} {spread(t)} {ratio(rate(o), rate(t), 12)}"
            ort = RECORDED_ORT.get((name, batch))
            print(line + f" {cell(ort)} {ratio(rate(o), ort, 8)}")
            if isinstance(o, str):
                notes.append(f"{name} batch {batch}: ours not measured: {o}")
    print("img/s, median of the repetitions; spread = standard deviation / median.")
    print("'eager' and 'frozen' are PyTorch, measured in this run on the same nets and")
    print("weights: the nn graph run eagerly, and the same traced, frozen and optimized")
    print(f"for inference ({malloc}).")
    print("'ORT rec.' is a recorded ONNX Runtime figure from an earlier run on this")
    print("machine (batch 8, 2 threads), not a same-run peer.")
    for n in notes:
        print(n)


if __name__ == "__main__":
    main()
