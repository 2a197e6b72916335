"""From the measurements of all rounds to what is printed: medians, spreads, ratios, histograms."""
import numpy

from scenarios import LEAST_ABOVE, LEAST_SAMPLES, LEAST_SECONDS

PERCENTILES = {"p50": 0.5, "p99": 0.99, "p999": 0.999}
METRICS = [*PERCENTILES, "rate", "cpu", "syscalls"]
BETTER_HIGH = {"rate"}
# 40 bins for each power of ten, 100 ns to 100 s.
EDGES = numpy.geomspace(1e2, 1e11, 9 * 40 + 1)


def percentile(samples, seconds, part):
    """In us; None when there is too little to tell."""
    enough = len(samples) >= LEAST_SAMPLES and len(samples) * (1 - part) >= LEAST_ABOVE and seconds >= LEAST_SECONDS
    return float(numpy.quantile(samples, part, method="inverted_cdf")) / 1e3 if enough else None


def histogram(samples):
    """The bins that are not empty: [lower edge in us, samples]."""
    counts, _ = numpy.histogram(samples, EDGES)
    return [[round(float(EDGES[index]) / 1e3, 3), int(counts[index])] for index in numpy.flatnonzero(counts)]


def summary(values):
    """Median, least and greatest of the rounds that have the value; None when none has."""
    present = [value for value in values if value is not None]
    if not present:
        return None
    return {"median": float(numpy.median(present)), "min": min(present), "max": max(present), "rounds": len(present)}


class Results:
    """The measurements of one run, by scenario, mode and contestant, one for each round."""

    def __init__(self):
        self.rounds = {}  # (scenario, mode, contestant) -> {round: {metric: value}}
        self._pools = {}  # the same -> [samples], [seconds]
        self.failures = []

    def add(self, key, number, measured):
        one = dict(measured.figures)
        for name, part in PERCENTILES.items():
            one[name] = percentile(measured.samples, measured.seconds, part)
        one["samples"] = len(measured.samples)
        one["seconds"] = measured.seconds
        self.rounds.setdefault(key, {})[number] = one
        pool = self._pools.setdefault(key, ([], []))
        pool[0].append(measured.samples)
        pool[1].append(measured.seconds)

    def value(self, key, metric):
        """What the rounds of one contestant come to. A percentile for which no round has enough samples is that of all
        rounds together, if they have: then without least and greatest."""
        found = summary([one.get(metric) for one in self.rounds.get(key, {}).values()])
        if found is None and metric in PERCENTILES and key in self._pools:
            samples, seconds = self._pools[key]
            pooled = percentile(numpy.concatenate(samples), sum(seconds), PERCENTILES[metric])
            return None if pooled is None else {"median": pooled, "pooled": True}
        return found

    def ratio(self, key, base, metric):
        """Median, least and greatest of the quotients of the same rounds: what slows all of a round down cancels out."""
        own, other = self.rounds.get(key, {}), self.rounds.get(base, {})
        quotients = [own[number][metric] / other[number][metric] for number in own
                     if number in other and own[number].get(metric) and other[number].get(metric)]
        if quotients:
            return summary(quotients)
        first, second = self.value(key, metric), self.value(base, metric)
        pooled = first and second and second["median"] and (first.get("pooled") or second.get("pooled"))
        return {"median": first["median"] / second["median"], "pooled": True} if pooled else None

    def lowest_floor(self, scenario, mode, metric, floors):
        """The floor with the best median, by name; None when there is none."""
        medians = {}
        for name in floors:
            value = self.value((scenario, mode, name), metric)
            if value:
                medians[name] = value["median"]
        if not medians:
            return None
        return (max if metric in BETTER_HIGH else min)(medians, key=medians.get)

    def resolution(self, key, same):
        """By metric, how far at most two that are the same were apart in a round: less than that means nothing."""
        found = {metric: self.ratio(key, same, metric) for metric in METRICS}
        return {metric: max(abs(ratio.get(end, ratio["median"]) - 1) for end in ("min", "max"))
                for metric, ratio in found.items() if ratio}

    def entry(self, key, floors, same=None):
        """One contestant in one scenario, as it stands in the JSON file; `same`: whose twin it is."""
        scenario, mode, contestant = key
        entry = {"scenario": scenario, "cores": mode, "contestant": contestant, "values": {}, "ratios": {},
                 "rounds": [{"round": number, **one} for number, one in self.rounds[key].items()]}
        for metric in sorted({name for one in self.rounds[key].values() for name in one} - {"samples", "seconds"}):
            value = self.value(key, metric)
            if value:
                entry["values"][metric] = value
            floor = self.lowest_floor(scenario, mode, metric, floors) if metric in METRICS else None
            ratio = floor and self.ratio(key, (scenario, mode, floor), metric)
            if ratio:
                entry["ratios"][metric] = {"floor": floor, **ratio}
        if same:
            entry["resolution"] = self.resolution(key, (scenario, mode, same))
        samples = numpy.concatenate(self._pools[key][0])
        if len(samples):
            entry["histogram_us"] = histogram(samples)
            entry["max"] = float(samples.max()) / 1e3
        return entry
