"""Draws one read's flowgram with matplotlib: a bar per flow, coloured by the flow's
nucleotide, the key's flows and the flows of the kept bases marked.

    python3 plot_flowgram.py SFF_FILE READ_NAME OUT.png

(docs/python_flowgram.png is this script's picture of a read of the bundled example set.)
"""

import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

import sorvexa  # noqa: E402

COLOURS = {"A": "#1a9850", "C": "#2166ac", "G": "#222222", "T": "#d73027"}


def main():
    path, name, out = sys.argv[1:4]
    sff = sorvexa.SffFile(path)
    read = sff[name]
    values = read.flowgram / 100  # hundredths to bases
    kept = read.kept_read()
    # The flows that called the key's bases, and those of the kept bases.
    key_end = int(read.flow_index_per_base[: len(sff.key)].sum())
    first, last = int(kept.flows[0]), int(kept.flows[-1])

    fig, ax = plt.subplots(figsize=(11, 3.6), dpi=110)
    ax.axvspan(-0.5, key_end - 0.5, color="#fde0a0", label="key flows")
    ax.axvspan(first - 0.5, last + 0.5, color="#e8eef7", label="flows of the kept bases")
    ax.bar(range(len(values)), values, width=1.0,
           color=[COLOURS.get(c, "grey") for c in read.flow_chars[: len(values)]])
    for letter, colour in COLOURS.items():
        ax.bar([0], [0], color=colour, label=letter)
    ax.set_xlim(-1, len(values))
    ax.set_xlabel("flow")
    ax.set_ylabel("signal (bases)")
    ax.set_title(f"{read.name}: {len(read)} bases, {len(kept)} kept, {len(values)} flows",
                 pad=24)
    ax.legend(loc="lower center", bbox_to_anchor=(0.5, 1.0), ncol=6, fontsize="small",
              frameon=False)
    fig.tight_layout()
    fig.savefig(out)


if __name__ == "__main__":
    main()
