#!/usr/bin/env python3
"""Writes examples/small_cnn/net.json and net.bin: a small image classifier
with fixed pseudo-random weights (standard library only, reproducible)."""
import json
import math
import os
import random
import struct
import sys

from atomic_write import write_atomically

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples", "small_cnn")
rng = random.Random(20261120)


def randn(n, scale):
    return [rng.gauss(0.0, scale) for _ in range(n)]


layers = []
blobs = []


def layer(name, type_, inputs, outputs, **param):
    layers.append({"name": name, "type": type_, "inputs": inputs, "outputs": outputs,
                   "param": param})


def blob(layer_name, blob_name, dims, values):
    assert len(values) == math.prod(dims)
    blobs.append((layer_name, blob_name, dims, values))


def conv(name, inp, out, cin, cout, k, stride=1, pad=0, group=1):
    layer(name, "Convolution", [inp], [out], num_output=cout, kernel_size=k, stride=stride,
          pad=pad, group=group, bias_term=True)
    fan_in = cin // group * k * k
    blob(name, "weight", [cout, cin // group, k, k], randn(cout * fan_in, math.sqrt(2.0 / fan_in)))
    blob(name, "bias", [cout], randn(cout, 0.05))


def batchnorm(name, t, c):
    layer(name, "BatchNormal", [t], [t], affine=True, eps=1e-5)
    blob(name, "mean", [c], randn(c, 0.1))
    blob(name, "variance", [c], [rng.uniform(0.5, 1.5) for _ in range(c)])
    blob(name, "scale", [c], [rng.uniform(0.8, 1.2) for _ in range(c)])
    blob(name, "bias", [c], randn(c, 0.1))


conv("conv1", "data", "conv1", 3, 16, 3, pad=1)
batchnorm("bn1", "conv1", 16)
layer("relu1", "ReLU", ["conv1"], ["conv1"])
layer("pool1", "Pooling", ["conv1"], ["pool1"], pool="max", kernel_size=2, stride=2)
conv("conv2_dw", "pool1", "conv2_dw", 16, 16, 3, pad=1, group=16)
layer("relu2", "ReLUX", ["conv2_dw"], ["conv2_dw"], threshold=6.0)
conv("conv2", "conv2_dw", "conv2", 16, 32, 1)
layer("relu3", "ReLU", ["conv2"], ["conv2"])
layer("pool2", "Pooling", ["conv2"], ["pool2"], pool="ave", global_pooling=True)
layer("fc", "InnerProduct", ["pool2"], ["fc"], num_output=10)
blob("fc", "weight", [10, 32], randn(320, math.sqrt(1.0 / 32)))
blob("fc", "bias", [10], randn(10, 0.05))
layer("prob", "Softmax", ["fc"], ["prob"], axis=1)

net = {"inputs": [{"name": "data", "dims": [1, 3, 32, 32]}], "layers": layers}

os.makedirs(OUT, exist_ok=True)
write_atomically(os.path.join(OUT, "net.json"), (json.dumps(net, indent=1) + "\n").encode())

data = bytearray(b"QZWT" + struct.pack("<III", 1, len(blobs), 0))
for layer_name, blob_name, dims, values in blobs:
    for s in (layer_name, blob_name):
        data += struct.pack("<I", len(s)) + s.encode()
    data += struct.pack("<I", len(dims)) + struct.pack("<%di" % len(dims), *dims)
    data += struct.pack("<IQ", 0, len(values)) + struct.pack("<%df" % len(values), *values)
write_atomically(os.path.join(OUT, "net.bin"), bytes(data))
print("wrote", OUT, file=sys.stderr)
