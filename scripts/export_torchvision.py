#!/usr/bin/python3
"""Exports torchvision classification models and detector heads to ONNX with
random weights (no downloads), for scripts/check_real_models.sh and the test
fixtures of tests/importer/onnx_real_models_test.cpp.

    /usr/bin/python3 scripts/export_torchvision.py OUT_DIR [--models a,b,...]
        [--opset 13] [--small]

Writes OUT_DIR/<model>_op<opset>.onnx for each model, with a dynamic batch.
Without --models: every full-size model (or every small one with --small).
Batch-norm statistics and affine parameters are randomised too, so that
folding them into neighbouring layers is exercised. Needs Debian's
python3-torch and python3-torchvision.
"""
import argparse
import os
import sys

import torch
import torch.nn as nn
import torchvision
from torchvision.models import detection
from torchvision.models.googlenet import Inception
from torchvision.models.mobilenetv2 import MobileNetV2
from torchvision.models.resnet import BasicBlock
from torchvision.models.shufflenetv2 import ShuffleNetV2
from torchvision.models.squeezenet import Fire
from torchvision.ops.misc import Conv2dNormActivation


class DetectorRaw(nn.Module):
    """SSDlite backbone and head up to the raw box regressions and class
    logits ([N, anchors, 4] and [N, anchors, classes]), before anchor
    decoding and non-maximum suppression."""

    def __init__(self, ssd):
        super().__init__()
        self.backbone = ssd.backbone
        self.head = ssd.head

    def forward(self, x):
        features = list(self.backbone(x).values())
        out = self.head(features)
        return out["bbox_regression"], out["cls_logits"]


class YoloStyle(nn.Module):
    """A small YOLO-style detector: a strided conv backbone with SiLU, a
    top-down neck (nearest upsampling and concatenation) and one 1x1
    prediction conv per scale, reshaped to [N, anchors * H * W, 5 + classes]
    with sigmoid scores, the scales concatenated."""

    def __init__(self, width=16, classes=8, anchors=3):
        super().__init__()

        def cbs(cin, cout, stride):
            return Conv2dNormActivation(cin, cout, 3, stride, activation_layer=nn.SiLU)

        w = width
        self.stem = nn.Sequential(cbs(3, w, 2), cbs(w, 2 * w, 2))
        self.c3 = nn.Sequential(cbs(2 * w, 4 * w, 2), cbs(4 * w, 4 * w, 1))
        self.c4 = nn.Sequential(cbs(4 * w, 8 * w, 2), cbs(8 * w, 8 * w, 1))
        self.reduce = Conv2dNormActivation(8 * w, 4 * w, 1, activation_layer=nn.SiLU)
        self.up = nn.Upsample(scale_factor=2, mode="nearest")
        self.merge = cbs(8 * w, 4 * w, 1)
        self.anchors, self.outputs = anchors, 5 + classes
        self.pred3 = nn.Conv2d(4 * w, anchors * self.outputs, 1)
        self.pred4 = nn.Conv2d(8 * w, anchors * self.outputs, 1)

    def level(self, p):
        n, _, h, w = p.shape
        p = p.view(n, self.anchors, self.outputs, h, w).permute(0, 1, 3, 4, 2)
        return torch.sigmoid(p.reshape(n, -1, self.outputs))

    def forward(self, x):
        c3 = self.c3(self.stem(x))
        c4 = self.c4(c3)
        m3 = self.merge(torch.cat([c3, self.up(self.reduce(c4))], 1))
        return torch.cat([self.level(self.pred3(m3)), self.level(self.pred4(c4))], 1)


class TinyResNet(nn.Module):
    """ResNet-18's structure (BasicBlock stages, stride-2 downsampling with
    1x1 projections) at a quarter of the width and one block per stage."""

    def __init__(self, width=16, classes=10):
        super().__init__()
        w = width
        self.stem = nn.Sequential(nn.Conv2d(3, w, 7, 2, 3, bias=False), nn.BatchNorm2d(w),
                                  nn.ReLU(inplace=True), nn.MaxPool2d(3, 2, 1))
        blocks, cin = [], w
        for k, cout in enumerate([w, 2 * w, 4 * w, 8 * w]):
            stride = 1 if k == 0 else 2
            down = None
            if stride != 1 or cin != cout:
                down = nn.Sequential(nn.Conv2d(cin, cout, 1, stride, bias=False),
                                     nn.BatchNorm2d(cout))
            blocks.append(BasicBlock(cin, cout, stride, down))
            cin = cout
        self.blocks = nn.Sequential(*blocks)
        self.pool = nn.AdaptiveAvgPool2d(1)
        self.fc = nn.Linear(cin, classes)

    def forward(self, x):
        return self.fc(torch.flatten(self.pool(self.blocks(self.stem(x))), 1))


class TinySqueezeNet(nn.Module):
    """SqueezeNet 1.1's layout (Fire modules, ceil-mode pooling, a conv
    classifier and global pooling) with fewer channels."""

    def __init__(self, classes=10):
        super().__init__()
        self.features = nn.Sequential(
            nn.Conv2d(3, 16, 3, 2), nn.ReLU(inplace=True), nn.MaxPool2d(3, 2, ceil_mode=True),
            Fire(16, 4, 16, 16), Fire(32, 4, 16, 16), nn.MaxPool2d(3, 2, ceil_mode=True),
            Fire(32, 8, 32, 32), Fire(64, 8, 32, 32))
        self.classifier = nn.Sequential(nn.Dropout(0.5), nn.Conv2d(64, classes, 1),
                                        nn.ReLU(inplace=True), nn.AdaptiveAvgPool2d(1))

    def forward(self, x):
        return torch.flatten(self.classifier(self.features(x)), 1)


class TinyGoogLeNet(nn.Module):
    """GoogLeNet's Inception blocks (four branches, 3x3 stand-in for 5x5 as in
    torchvision, ceil-mode max pooling branch) at a small width."""

    def __init__(self, classes=10):
        super().__init__()
        self.stem = nn.Sequential(Conv2dNormActivation(3, 16, 7, 2), nn.MaxPool2d(3, 2, ceil_mode=True),
                                  Conv2dNormActivation(16, 32, 3))
        self.a = Inception(32, 8, 8, 16, 4, 8, 8)
        self.b = Inception(40, 16, 8, 16, 4, 8, 8)
        self.pool = nn.MaxPool2d(3, 2, ceil_mode=True)
        self.c = Inception(48, 16, 16, 24, 4, 8, 8)
        self.head = nn.Sequential(nn.AdaptiveAvgPool2d(1), nn.Flatten(), nn.Dropout(0.2),
                                  nn.Linear(56, classes))

    def forward(self, x):
        return self.head(self.c(self.pool(self.b(self.a(self.stem(x))))))


class TinyVgg(nn.Module):
    """VGG-11's layout (3x3 convs and max pooling, then a three-layer
    classifier with dropout) with small widths and a small classifier."""

    def __init__(self, classes=10):
        super().__init__()
        cfg = [8, "M", 16, "M", 32, 32, "M", 64, 64, "M"]
        self.features = torchvision.models.vgg.make_layers(cfg, batch_norm=False)
        self.pool = nn.AdaptiveAvgPool2d((3, 3))
        self.classifier = nn.Sequential(nn.Linear(576, 64), nn.ReLU(True), nn.Dropout(),
                                        nn.Linear(64, 64), nn.ReLU(True), nn.Dropout(),
                                        nn.Linear(64, classes))

    def forward(self, x):
        return self.classifier(torch.flatten(self.pool(self.features(x)), 1))


def tiny_mobilenet_v2():
    """MobileNetV2 at width 0.25 with a 128-channel last conv instead of 1280."""
    model = MobileNetV2(width_mult=0.25, num_classes=10)
    last = model.features[-1][0].in_channels
    model.features[-1] = Conv2dNormActivation(last, 128, 1, activation_layer=nn.ReLU6)
    model.classifier[-1] = nn.Linear(128, 10)
    return model


def full_models():
    return {
        "resnet18": lambda: torchvision.models.resnet18(weights=None),
        "mobilenet_v2": lambda: torchvision.models.mobilenet_v2(weights=None),
        "squeezenet1_1": lambda: torchvision.models.squeezenet1_1(weights=None),
        "shufflenet_v2_x1_0": lambda: torchvision.models.shufflenet_v2_x1_0(weights=None),
        "googlenet": lambda: torchvision.models.googlenet(weights=None, aux_logits=False,
                                                          init_weights=True),
        "vgg11": lambda: torchvision.models.vgg11(weights=None),
        "densenet121": lambda: torchvision.models.densenet121(weights=None),
        "ssdlite320": lambda: DetectorRaw(detection.ssdlite320_mobilenet_v3_large(
            weights=None, weights_backbone=None)),
        "yolo_style": lambda: YoloStyle(width=32, classes=80),
    }


def small_models():
    return {
        "tiny_resnet": lambda: TinyResNet(width=8),
        "tiny_mobilenet_v2": tiny_mobilenet_v2,
        "tiny_squeezenet": lambda: TinySqueezeNet(),
        "tiny_shufflenet_v2": lambda: ShuffleNetV2([2, 2, 2], [8, 16, 32, 64, 128], num_classes=10),
        "tiny_googlenet": lambda: TinyGoogLeNet(),
        "tiny_vgg": lambda: TinyVgg(),
        "tiny_densenet": lambda: torchvision.models.DenseNet(
            growth_rate=8, block_config=(2, 2, 2, 2), num_init_features=16, bn_size=2,
            num_classes=10),
        "tiny_yolo": lambda: YoloStyle(width=8, classes=4),
    }


# Input H and W per model (batch and channels are 1 and 3).
INPUT_SIZE = {"googlenet": 224, "ssdlite320": 320, "yolo_style": 320}


def input_size(name, small):
    return 48 if small else INPUT_SIZE.get(name, 224)


def randomise_norms(model, gen):
    for m in model.modules():
        if isinstance(m, nn.BatchNorm2d):
            c = m.num_features
            m.running_mean.copy_(torch.randn(c, generator=gen) * 0.1)
            m.running_var.copy_(torch.rand(c, generator=gen) + 0.5)
            m.weight.data.copy_(torch.rand(c, generator=gen) + 0.5)
            m.bias.data.copy_(torch.randn(c, generator=gen) * 0.1)


def export(name, make, out_dir, opset, size):
    torch.manual_seed(0)
    model = make()
    gen = torch.Generator().manual_seed(1)
    with torch.no_grad():
        randomise_norms(model, gen)
    model.eval()
    x = torch.randn(1, 3, size, size, generator=gen)
    with torch.no_grad():
        outs = model(x)
    n_out = len(outs) if isinstance(outs, (tuple, list)) else 1
    out_names = ["output"] if n_out == 1 else ["output%d" % k for k in range(n_out)]
    axes = {"input": {0: "batch"}}
    for o in out_names:
        axes[o] = {0: "batch"}
    path = os.path.join(out_dir, "%s_op%d.onnx" % (name, opset))
    # Exported beside the target and renamed over it once complete, so that an
    # interrupted export never leaves a partial model that a later run reuses.
    tmp = "%s.tmp.%d" % (path, os.getpid())
    try:
        torch.onnx.export(model, x, tmp, opset_version=opset, input_names=["input"],
                          output_names=out_names, dynamic_axes=axes, do_constant_folding=True)
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
    print("%s: %d parameters, input [1, 3, %d, %d] -> %s" %
          (name, sum(p.numel() for p in model.parameters()), size, size, path))
    return path


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("out_dir")
    parser.add_argument("--models", default="")
    parser.add_argument("--opset", type=int, default=13)
    parser.add_argument("--small", action="store_true")
    args = parser.parse_args()
    table = small_models() if args.small else full_models()
    names = [n for n in args.models.split(",") if n] or list(table)
    os.makedirs(args.out_dir, exist_ok=True)
    for name in names:
        if name not in table:
            sys.exit("unknown model %r; known: %s" % (name, ", ".join(table)))
        export(name, table[name], args.out_dir, args.opset, input_size(name, args.small))


if __name__ == "__main__":
    main()
