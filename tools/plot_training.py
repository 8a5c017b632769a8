#!/usr/bin/python3
"""Plots a training curve CSV (seconds, iteration, loss, map) as loss and mAP against time.

    plot_training.py curve.csv out.png [title] [--target MAP] [--label TEXT] [--result FILE]

--result names the proof's result file (checkpoint_seconds, test_map, ...): the chosen
checkpoint and its test mAP are marked.
"""
import argparse
import csv

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def main():
    p = argparse.ArgumentParser(usage=__doc__)
    p.add_argument("csv")
    p.add_argument("png")
    p.add_argument("title", nargs="?", default="detector training on the host backend")
    p.add_argument("--target", type=float, default=0.8)
    p.add_argument("--label", default="held-out mAP@0.5")
    p.add_argument("--result")
    a = p.parse_args()
    rows = list(csv.DictReader(open(a.csv)))
    minutes = [float(r["seconds"]) / 60 for r in rows]
    loss = [float(r["loss"]) for r in rows]
    m_ap = [float(r["map"]) for r in rows]
    fig, ax1 = plt.subplots(figsize=(7, 4))
    ax1.plot(minutes, loss, color="tab:red", marker=".", label="training loss (running mean)")
    ax1.set_xlabel("training time (minutes)")
    ax1.set_ylabel("loss per image", color="tab:red")
    ax1.set_yscale("log" if max(loss) > 20 * min(loss) else "linear")
    ax2 = ax1.twinx()
    ax2.plot(minutes, m_ap, color="tab:blue", marker="o", markersize=3, label=a.label)
    ax2.axhline(a.target, color="tab:blue", linestyle=":", linewidth=1)
    if a.result:
        r = dict(line.strip().split(",") for line in open(a.result) if "," in line)
        t, m = float(r["checkpoint_seconds"]) / 60, float(r["test_map"])
        ax2.plot([t], [m], color="tab:green", marker="*", markersize=14, linestyle="none",
                 label="test mAP@0.5 of the chosen checkpoint (%.3f)" % m)
    ax2.set_ylim(0, 1)
    ax2.set_ylabel("mAP@0.5", color="tab:blue")
    ax1.set_title(a.title)
    fig.legend(loc="center right", bbox_to_anchor=(0.88, 0.45))
    fig.tight_layout()
    fig.savefig(a.png, dpi=120)


if __name__ == "__main__":
    main()
