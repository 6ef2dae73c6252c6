#!/usr/bin/python3
"""Trains the digits example net and writes examples/digits/.

A small CNN on scikit-learn's handwritten digits (8 x 8 pictures of 0..16,
upsampled to 16 x 16 and scaled to -1..1), exported to ONNX and imported with
qzdl_onnx2net, so that the accuracy report (docs/accuracy-report.md) has a
trained net with real labels to work on. Writes:

  examples/digits/net.json, net.bin   the imported float net
  examples/digits/calibration/        100 training pictures, list.txt
  examples/digits/eval/               300 held-out pictures, list.txt with
                                      "path<TAB>label" lines

Every picture is one .npy file of float32 [1, 1, 16, 16], the net's input as
it is (an .npy list gets no transforms). Deterministic: the same files on
every run with the same PyTorch and scikit-learn.

Needs python3-torch, python3-sklearn and python3-onnx (Debian packages) and a
built qzdl_onnx2net:

  /usr/bin/python3 scripts/train_digits_example.py [--onnx2net build/tools/qzdl_onnx2net]
"""
import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile

import numpy as np
import onnx
import torch
import torch.nn as nn
import torch.nn.functional as F
from sklearn.datasets import load_digits

SEED = 20240611
EVAL_COUNT = 300
CALIBRATION_COUNT = 100
EPOCHS = 30


class DigitsNet(nn.Module):
    """Convolutions with batch norm, a residual add, a depthwise block,
    global average pooling and a classifier; ops the importer maps."""

    def __init__(self):
        super().__init__()
        self.conv1 = nn.Conv2d(1, 16, 3, padding=1, bias=False)
        self.bn1 = nn.BatchNorm2d(16)
        self.conv2 = nn.Conv2d(16, 16, 3, padding=1, bias=False)
        self.bn2 = nn.BatchNorm2d(16)
        self.conv3 = nn.Conv2d(16, 16, 3, padding=1, bias=False)
        self.bn3 = nn.BatchNorm2d(16)
        # Depthwise 3 x 3 at stride 2 (16 -> 8 pixels), then a 1 x 1.
        self.dw = nn.Conv2d(16, 16, 3, stride=2, padding=1, groups=16, bias=False)
        self.bn_dw = nn.BatchNorm2d(16)
        self.pw = nn.Conv2d(16, 32, 1, bias=False)
        self.bn_pw = nn.BatchNorm2d(32)
        self.fc = nn.Linear(32, 10)

    def forward(self, x):
        x = F.relu(self.bn1(self.conv1(x)))
        y = F.relu(self.bn2(self.conv2(x)))
        y = self.bn3(self.conv3(y))
        x = F.relu(x + y)
        x = F.relu6(self.bn_dw(self.dw(x)))
        x = F.relu(self.bn_pw(self.pw(x)))
        x = F.adaptive_avg_pool2d(x, 1).flatten(1)
        return self.fc(x)


def pictures():
    """All 1797 pictures as float32 [N, 1, 16, 16] in -1..1, and labels."""
    digits = load_digits()
    x = torch.from_numpy(digits.images.astype(np.float32) / 16.0).unsqueeze(1)
    x = F.interpolate(x, size=(16, 16), mode="bilinear", align_corners=False)
    return (x * 2.0 - 1.0).numpy(), digits.target.astype(np.int64)


def split(n):
    """Indices of the held-out, calibration and training pictures."""
    order = np.random.RandomState(SEED).permutation(n)
    held_out = order[:EVAL_COUNT]
    train = order[EVAL_COUNT:]
    return held_out, train[:CALIBRATION_COUNT], train


def train(model, x, y):
    opt = torch.optim.SGD(model.parameters(), lr=0.05, momentum=0.9, weight_decay=1e-4)
    sched = torch.optim.lr_scheduler.CosineAnnealingLR(opt, EPOCHS)
    gen = torch.Generator().manual_seed(SEED)
    xt, yt = torch.from_numpy(x), torch.from_numpy(y)
    for epoch in range(EPOCHS):
        model.train()
        perm = torch.randperm(len(xt), generator=gen)
        total = 0.0
        for k in range(0, len(xt), 32):
            idx = perm[k:k + 32]
            # A shift of up to one pixel keeps the net from learning positions.
            dx, dy = torch.randint(-1, 2, (2,), generator=gen).tolist()
            batch = torch.roll(xt[idx], shifts=(dy, dx), dims=(2, 3))
            loss = F.cross_entropy(model(batch), yt[idx])
            opt.zero_grad()
            loss.backward()
            opt.step()
            total += loss.item() * len(idx)
        sched.step()
        if epoch % 5 == 4 or epoch == EPOCHS - 1:
            print(f"epoch {epoch + 1}: loss {total / len(xt):.4f}")


def accuracy(model, x, y):
    model.eval()
    with torch.no_grad():
        return float((model(torch.from_numpy(x)).argmax(1).numpy() == y).mean())


def rename_tensors(path):
    """Names every computed tensor after the layer that writes it ("conv1",
    "relu_2", "add") instead of the exporter's "/conv1/Conv_output_0", so
    that the per-tensor tables read well."""
    model = onnx.load(path)
    graph = model.graph
    keep = {v.name for v in graph.output} | {v.name for v in graph.input}
    renamed = {}
    for node in graph.node:
        parts = node.name.strip("/").split("/")
        base = (parts[0] if len(parts) > 1 else parts[-1]).lower()
        for k, out in enumerate(node.output):
            if out in keep:
                continue
            name = base if len(node.output) == 1 else f"{base}_{k}"
            assert name not in renamed.values(), name
            renamed[out] = name
            node.output[k] = name
        node.name = base
        for k, inp in enumerate(node.input):
            node.input[k] = renamed.get(inp, inp)
    for value in graph.value_info:
        value.name = renamed.get(value.name, value.name)
    onnx.checker.check_model(model)
    onnx.save(model, path)


def write_set(folder, x, y, with_labels):
    """One .npy per picture and list.txt (paths from the repository root)."""
    if os.path.isdir(folder):
        shutil.rmtree(folder)
    os.makedirs(folder)
    lines = []
    for k in range(len(x)):
        name = f"{k:03d}.npy"
        np.save(os.path.join(folder, name), x[k:k + 1].astype(np.float32))
        path = os.path.join(folder, name)
        lines.append(f"{path}\t{int(y[k])}" if with_labels else path)
    with open(os.path.join(folder, "list.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--onnx2net", default="build/tools/qzdl_onnx2net")
    parser.add_argument("--out", default="examples/digits")
    args = parser.parse_args()
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    os.chdir(root)

    random.seed(SEED)
    np.random.seed(SEED)
    torch.manual_seed(SEED)
    torch.set_num_threads(1)
    torch.use_deterministic_algorithms(True)

    x, y = pictures()
    held_out, calibration, train_idx = split(len(x))
    model = DigitsNet()
    train(model, x[train_idx], y[train_idx])
    model.eval()
    print(f"float accuracy: training {accuracy(model, x[train_idx], y[train_idx]):.4f}, "
          f"held-out {accuracy(model, x[held_out], y[held_out]):.4f}")

    os.makedirs(args.out, exist_ok=True)
    with tempfile.TemporaryDirectory() as tmp:
        onnx_path = os.path.join(tmp, "digits.onnx")
        torch.onnx.export(model, torch.from_numpy(x[:1]), onnx_path, opset_version=13,
                          input_names=["data"], output_names=["logits"],
                          do_constant_folding=True)
        rename_tensors(onnx_path)
        subprocess.run([args.onnx2net, onnx_path, os.path.join(args.out, "net.json"),
                        os.path.join(args.out, "net.bin")], check=True)
    write_set(os.path.join(args.out, "calibration"), x[calibration], y[calibration], False)
    write_set(os.path.join(args.out, "eval"), x[held_out], y[held_out], True)
    print(f"written: {args.out}/net.json, net.bin, calibration/ ({CALIBRATION_COUNT}), "
          f"eval/ ({EVAL_COUNT})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
