"""The Python side of bench/python-row (run by /usr/bin/python3).

    python_bench.py read|read_out MOVIE SECONDS ROUNDS
        median frames per second of movie.read() (open, read all, close)
        into a new array each time, or into one array (read(out=...))
    python_bench.py stream MOVIE LIMIT_MIB
        iter_frames over MOVIE with the address space limited to LIMIT_MIB:
        prints the frames read, the resident memory after the first 100
        frames and its peak over the whole movie (MiB)
"""
import resource
import statistics
import sys
import time

import zebtrk


def read(name, seconds, rounds, reuse):
    movie = zebtrk.Drive()[name]
    out = movie.read() if reuse else None
    rates = []
    for _ in range(rounds):
        start, frames = time.perf_counter(), 0
        while True:
            frames += len(movie.read(out))
            elapsed = time.perf_counter() - start
            if elapsed >= seconds:
                break
        rates.append(frames / elapsed)
    print(f"{statistics.median(rates):.1f}")


def resident_mib():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * resource.getpagesize() / 2**20


def stream(name, limit_mib):
    limit = limit_mib * 2**20
    resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
    movie = zebtrk.Drive()[name]
    assert movie.size > limit, "the movie must be larger than the memory allowed"
    early = peak = 0.0
    count = 0
    for index, frame in movie.iter_frames():
        count += 1
        if index % 100 == 0:
            peak = max(peak, resident_mib())
        if index == 100:
            early = resident_mib()
    print(f"{count} {early:.1f} {max(peak, resident_mib()):.1f}")


if __name__ == "__main__":
    if sys.argv[1] in ("read", "read_out"):
        read(sys.argv[2], float(sys.argv[3]), int(sys.argv[4]), sys.argv[1] == "read_out")
    else:
        stream(sys.argv[2], int(sys.argv[3]))
