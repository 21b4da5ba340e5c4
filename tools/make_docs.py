"""The README's pictures, from data this script generates (make docs).

1. latency_cdf.png: the CDF of the demo's latencies (log-normal, median
   20 ms; one million values here) from a Delta-100 digest, drawn by
   TDigest.plot over the exact CDF of the values.
2. rank_error.png: the rank error |fraction of values below the estimate - q|
   across q from 0.0001 to 0.9999 for Delta 50, 100 and 200 (the largest
   among neighbouring q).

Digests are built serially with fixed random streams, so the pictures are
the same on every run. Argument: the output directory.
"""

import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import zotdigest  # noqa: E402

N = 1_000_000


def latencies():
    # The demo's distribution and seed (tools/demo_steps.sh), a tenth of its size.
    return np.random.default_rng(2024).lognormal(mean=3.0, sigma=0.8, size=N)


def latency_cdf(data, path):
    d = zotdigest.TDigest(data, 100, zotdigest.RandomStream(seed=1))
    fig, ax = plt.subplots(figsize=(7, 4))
    exact = np.sort(data)
    ax.step(exact, np.arange(1, N + 1) / N, where="post", color="0.75", linewidth=4,
            label="exact (1,000,000 values)")
    d.plot("cdf", ax)
    ax.lines[-1].set(label=f"digest, Delta 100 ({d.NumCentroids} centroids)", color="C0")
    ax.set(xscale="log", xlabel="latency (ms)", title="Latencies: the digest's CDF over the exact one")
    ax.legend(loc="lower right")
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)


def rank_error(data, path):
    exact = np.sort(data)
    logit = np.linspace(np.log(1e-4 / (1 - 1e-4)), np.log(0.9999 / 0.0001), 400)
    q = 1 / (1 + np.exp(-logit))
    fig, ax = plt.subplots(figsize=(7, 4))
    for i, delta in enumerate([50, 100, 200]):
        d = zotdigest.TDigest(data, delta, zotdigest.RandomStream(seed=i + 1))
        below = np.searchsorted(exact, d.quantile(q), side="left") / N
        error = np.maximum(np.abs(below - q), 0.5 / N)
        # The largest error among 9 neighbouring q: the envelope reads
        # better than the jagged point-by-point line.
        envelope = np.max(np.lib.stride_tricks.sliding_window_view(np.pad(error, 4, "edge"), 9), 1)
        ax.plot(q, envelope, label=f"Delta {delta}")
    ax.set(xscale="logit", yscale="log", xlabel="q", ylabel="rank error (largest near q)",
           title="Rank error of the quantile estimate, 1,000,000 log-normal values")
    ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)


def main(out):
    os.makedirs(out, exist_ok=True)
    data = latencies()
    latency_cdf(data, os.path.join(out, "latency_cdf.png"))
    rank_error(data, os.path.join(out, "rank_error.png"))
    print(f"docs: pictures written to {out}")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "docs/images")
