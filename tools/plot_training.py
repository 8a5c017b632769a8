#!/usr/bin/python3
"""Plots a training curve CSV (seconds, iteration, loss, map) as loss and mAP against time.

    plot_training.py curve.csv out.png [title]
"""
import csv
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    rows = list(csv.DictReader(open(sys.argv[1])))
    minutes = [float(r["seconds"]) / 60 for r in rows]
    loss = [float(r["loss"]) for r in rows]
    m_ap = [float(r["map"]) for r in rows]
    fig, ax1 = plt.subplots(figsize=(7, 4))
    ax1.plot(minutes, loss, color="tab:red", marker=".", label="training loss (running mean)")
    ax1.set_xlabel("training time (minutes)")
    ax1.set_ylabel("loss per image", color="tab:red")
    ax2 = ax1.twinx()
    ax2.plot(minutes, m_ap, color="tab:blue", marker="o", label="held-out mAP@0.5")
    ax2.axhline(0.8, color="tab:blue", linestyle=":", linewidth=1)
    ax2.set_ylim(0, 1)
    ax2.set_ylabel("mAP@0.5", color="tab:blue")
    ax1.set_title(sys.argv[3] if len(sys.argv) > 3 else "detector training on the host backend")
    fig.legend(loc="center right", bbox_to_anchor=(0.88, 0.5))
    fig.tight_layout()
    fig.savefig(sys.argv[2], dpi=120)


if __name__ == "__main__":
    main()
