"""Pictures of a digest with matplotlib, imported only when one is drawn.

The command-line tool draws its PNG pictures through _main:
    python3 -c "import sys, zotdigest._plot as p; sys.exit(p._main(sys.argv[1:]))" \
        FILE OUT.png [cdf|density|quantile [TITLE]]
"""

import os
import sys

import numpy as np

from ._core import TDigest

KINDS = ("cdf", "density", "quantile")


def density_steps(d, bins=100):
    """(edges, heights) of the density the centroids describe, in at most
    `bins` steps of equal width over the data's range; they integrate to 1.

    Each centroid's weight is spread evenly from the midpoint with its left
    neighbour to the midpoint with its right one (the smallest and largest
    values close the ends); the steps hold the weight that falls in them.
    """
    if d.NumDataPoints == 0:
        raise ValueError("zotdigest: an empty digest has no density to draw")
    means, counts = d.centroids()
    means, where = np.unique(means, return_inverse=True)
    weights = np.bincount(where, weights=counts.astype(np.float64))
    low = min(float(d.icdf(0.0)), means[0])
    high = max(float(d.icdf(1.0)), means[-1])
    if low == high:
        half = max(abs(low) * 1e-3, 1e-3)
        return np.array([low - half, high + half]), np.array([0.5 / half])
    spread = np.concatenate([[low], (means[:-1] + means[1:]) / 2, [high]])
    cumulative = np.concatenate([[0.0], np.cumsum(weights) / weights.sum()])
    edges = np.linspace(low, high, min(bins, means.size) + 1)
    return edges, np.diff(np.interp(edges, spread, cumulative)) / np.diff(edges)


def plot(self, kind="cdf", ax=None):
    """plot(kind="cdf", ax=None)

    Draws the digest with matplotlib and returns the Axes: kind "cdf" (the
    estimated cumulative distribution over the data's range), "density"
    (up to 100 steps of equal width drawn from the centroids, integrating
    to 1) or "quantile" (the
    estimated quantile for q in [0, 1]). Draws into `ax` when given, else
    into a new figure. Raises ValueError for another kind or an empty
    digest; ImportError when matplotlib is not installed.
    """
    if kind not in KINDS:
        raise ValueError(f"zotdigest: plot kind is one of {', '.join(KINDS)}, not {kind!r}")
    if self.NumDataPoints == 0:
        raise ValueError("zotdigest: an empty digest has nothing to plot")
    if ax is None:
        import matplotlib.pyplot as plt

        _, ax = plt.subplots()
    if kind == "density":
        edges, heights = density_steps(self)
        ax.stairs(heights, edges, fill=True, alpha=0.6)
        ax.set(xlabel="value", ylabel="density")
    elif kind == "cdf":
        means, _ = self.centroids()
        x = np.union1d(np.linspace(self.icdf(0.0), self.icdf(1.0), 512), means)
        ax.plot(x, self.cdf(x))
        ax.set(xlabel="value", ylabel="cumulative probability")
    else:
        q = np.linspace(0.0, 1.0, 513)
        ax.plot(q, self.icdf(q))
        ax.set(xlabel="q", ylabel="quantile")
    return ax


def _main(argv):
    """The command-line tool's PNG pictures: one line (or set of steps) per
    digest of the file, labelled, into a PNG. Exit 2 for a bad file."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    from ._files import load

    path, out = argv[0], argv[1]
    kind = argv[2] if len(argv) > 2 else "cdf"
    title = argv[3] if len(argv) > 3 else os.path.basename(path)
    try:
        pairs = load(path, labels=True)
        fig, ax = plt.subplots(figsize=(8, 5))
        for i, (label, digest) in enumerate(pairs):
            plot(digest, kind, ax)
            drawn = ax.patches if kind == "density" else ax.lines
            drawn[-1].set_label(label or f"digest {i}")
        if len(pairs) > 1:
            ax.legend()
        ax.set_title(f"{title}: {kind}")
        # Replaced atomically, as the tool writes every file.
        temporary = f"{out}.{os.getpid()}.tmp"
        try:
            fig.savefig(temporary, format="png", dpi=100)
            os.replace(temporary, out)
        finally:
            if os.path.exists(temporary):
                os.remove(temporary)
    except (ValueError, OSError) as e:
        print(f"zotdigest: {e}", file=sys.stderr)
        return 2
    return 0


def install():
    TDigest.plot = plot

