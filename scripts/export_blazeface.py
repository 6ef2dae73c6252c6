#!/usr/bin/python3
"""Exports a BlazeFace-like face detector to ONNX with random weights (no
downloads), the small-layer case of bench/run_load_bench.sh.

    /usr/bin/python3 scripts/export_blazeface.py OUT.onnx [--opset 13] [--seed 1]

The shape of the front-camera BlazeFace: 128 x 128 input, a 5x5 stride-2
stem, sixteen blocks of a 3x3 depthwise and a 1x1 pointwise convolution
with a residual sum (2x2 max pooling and zero channels on the shortcut where
the block halves the plane or widens), then 1x1 class and box heads at 16x16
and 8x8, reshaped to [N, 896, 1] scores and [N, 896, 16] boxes. Many layers,
each of little work: at batch 1 most of a forward is the cost of starting
and joining layers rather than arithmetic. Batch is dynamic. Needs Debian's
python3-torch.
"""
import argparse

import torch
import torch.nn as nn
import torch.nn.functional as F


class BlazeBlock(nn.Module):
    def __init__(self, cin, cout, stride=1):
        super().__init__()
        self.stride, self.extra = stride, cout - cin
        self.dw = nn.Conv2d(cin, cin, 3, stride, 1, groups=cin)
        self.pw = nn.Conv2d(cin, cout, 1)

    def forward(self, x):
        h = self.pw(self.dw(x))
        if self.stride == 2:
            x = F.max_pool2d(x, 2, 2)
        if self.extra > 0:
            # Zero channels (the exporter keeps them as a product by zero:
            # its Pad over channels is not something every runtime takes).
            x = torch.cat([x, x[:, : self.extra] * 0.0], 1)
        return F.relu(h + x)


class BlazeFaceLike(nn.Module):
    def __init__(self):
        super().__init__()
        self.stem = nn.Conv2d(3, 24, 5, 2, 2)
        widths = [(24, 24, 1), (24, 28, 1), (28, 32, 2), (32, 36, 1), (36, 42, 1), (42, 48, 2),
                  (48, 56, 1), (56, 64, 1), (64, 72, 1), (72, 80, 1), (80, 88, 1)]
        self.backbone1 = nn.Sequential(*[BlazeBlock(a, b, s) for a, b, s in widths])
        self.backbone2 = nn.Sequential(BlazeBlock(88, 96, 2),
                                       *[BlazeBlock(96, 96) for _ in range(4)])
        self.cls8, self.cls16 = nn.Conv2d(88, 2, 1), nn.Conv2d(96, 6, 1)
        self.box8, self.box16 = nn.Conv2d(88, 32, 1), nn.Conv2d(96, 96, 1)

    @staticmethod
    def flat(p, per_anchor):
        n = p.shape[0]
        return p.permute(0, 2, 3, 1).reshape(n, -1, per_anchor)

    def forward(self, x):
        a = self.backbone1(F.relu(self.stem(x)))
        b = self.backbone2(a)
        scores = torch.cat([self.flat(self.cls8(a), 1), self.flat(self.cls16(b), 1)], 1)
        boxes = torch.cat([self.flat(self.box8(a), 16), self.flat(self.box16(b), 16)], 1)
        return scores, boxes


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("out")
    p.add_argument("--opset", type=int, default=13)
    p.add_argument("--seed", type=int, default=1)
    a = p.parse_args()
    torch.manual_seed(a.seed)
    model = BlazeFaceLike().eval()
    x = torch.randn(1, 3, 128, 128)
    with torch.no_grad():
        torch.onnx.export(model, x, a.out, opset_version=a.opset, input_names=["input"],
                          output_names=["scores", "boxes"],
                          dynamic_axes={"input": {0: "n"}, "scores": {0: "n"}, "boxes": {0: "n"}})
    print(a.out)


if __name__ == "__main__":
    main()
