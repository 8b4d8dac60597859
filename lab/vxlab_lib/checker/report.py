"""Shows a Result to people."""

SHOWN_MAX = 5  # findings per invariant


def place(result, finding):
    words = []
    if finding.t is not None:
        words.append(f"at {result.seconds(finding.t):.3f} s")
    for name, value in (("node", finding.node), ("entry", finding.tag), ("line", finding.line),
                        ("batch", finding.batch)):
        if value is not None:
            words.append(f"{name} {value}")
    return ", ".join(words)


def lines(result):
    yield f"{result.directory}: seed {result.seed}"
    for check in result.checks:
        counts = ", ".join(f"{count} {what}" for what, count in check.examined.items() if count)
        yield f"  {check.invariant:<4} {check.verdict:<17} {check.title}" + (f" ({counts})" if counts else "")
        for note in check.notes:
            yield f"         {note}"
        for finding in check.violations[:SHOWN_MAX]:
            yield f"         VIOLATED {place(result, finding)}: {finding.text}"
        excuses = {}
        for finding in check.excused:
            excuses.setdefault(finding.excuse, []).append(finding)
        for excuse, findings in excuses.items():
            first = findings[0]
            yield f"         excused {len(findings)} x {excuse}: {place(result, first)}: {first.text}"
            yield f"           because {first.proof}"
    yield verdict(result)


def verdict(result):
    if result.first:
        return (f"VIOLATED: {result.first.invariant} first, {place(result, result.first)}: {result.first.text} "
                f"(seed {result.seed})")
    if result.unexamined:
        return f"could not run: nothing examined of {', '.join(result.unexamined)}"
    excused = sum(len(check.excused) for check in result.checks)
    return "held" + (f", {excused} with an excuse" if excused else "")
