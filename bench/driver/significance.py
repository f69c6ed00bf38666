"""Whether two series of measurements differ: the Mann-Whitney U test, which asks nothing of their distribution."""
import math
import statistics


def mann_whitney(first, second):
    """The two-sided p-value: exact where no two values are equal, else the normal approximation with ties."""
    n, m = len(first), len(second)
    values = sorted((value, side) for side, series in enumerate((first, second)) for value in series)
    ranks = {}
    ties = 0
    start = 0
    while start < n + m:
        end = start
        while end < n + m and values[end][0] == values[start][0]:
            end += 1
        ranks[values[start][0]] = (start + 1 + end) / 2
        ties += (end - start) ** 3 - (end - start)
        start = end
    u = sum(ranks[value] for value in first) - n * (n + 1) / 2
    if ties == 0:
        return exact(n, m, u)
    mean = n * m / 2
    deviation = math.sqrt(n * m / 12 * (n + m + 1 - ties / ((n + m) * (n + m - 1))))
    if deviation == 0:
        return 1.0
    return math.erfc(max(0.0, abs(u - mean) - 0.5) / deviation / math.sqrt(2))


def exact(n, m, u):
    """Counts the orders of n and m values whose U is as far from the middle: the coefficients of the Gaussian binomial."""
    counts = [[[0] * (n * m + 1) for _ in range(m + 1)] for _ in range(n + 1)]
    for i in range(n + 1):
        for j in range(m + 1):
            if i == 0 or j == 0:
                counts[i][j][0] = 1
                continue
            for value in range(i * j + 1):
                counts[i][j][value] = counts[i][j - 1][value] + (counts[i - 1][j][value - j] if value >= j else 0)
    distance = abs(u - n * m / 2)
    far = sum(count for value, count in enumerate(counts[n][m]) if abs(value - n * m / 2) >= distance)
    return far / math.comb(n + m, n)


def print_comparison(base, before, after):
    """Prints for each benchmark that both have what has changed. As many tests are made at once, a change counts when its
    p-value is below 0.05 after Holm's correction."""
    names = sorted(before[0].keys() & after[0].keys())
    series = {name: ([values[name][0] for values in before], [values[name][0] for values in after]) for name in names}
    p_values = {name: mann_whitney(*series[name]) for name in names}
    changed = set()
    for position, name in enumerate(sorted(names, key=p_values.get)):
        if p_values[name] * (len(names) - position) >= 0.05:
            break
        changed.add(name)
    print(f"{len(before)} rounds; {base} beside this tree")
    print(f"{'benchmark':<52} {base[:12]:>12} {'now':>12} {'change':>9} {'p':>8}")
    for name in names:
        old, new = (statistics.median(values) for values in series[name])
        print(f"{name:<52} {old:>12.2f} {new:>12.2f} {100 * (new / old - 1) if old else 0.0:>+8.1f}% {p_values[name]:>8.4f}"
              f"{'  CHANGED' if name in changed else ''}")
    for name in sorted(before[0].keys() ^ after[0].keys()):
        print(f"{name:<52} only {'before' if name in before[0] else 'now'}")
    print(f"{len(changed)} of {len(names)} have changed significantly")
