"""Judges bitmap files and lists against the model. Each verdict is a sentence; none means all is well.
Reads no files and calls nobody: what is there comes as arguments."""

def blocks_of(bits, most=12):
    """The numbers of set bits, for a person."""
    numbers = [number for number in range(bits.bit_length()) if bits >> number & 1]
    more = f" and {len(numbers) - most} more" if len(numbers) > most else ""
    return ", ".join(map(str, numbers[:most])) + more


def lacks(effect, wanted):
    """What `effect` lacks of `wanted`; empty for nothing."""
    missing = []
    if bits := wanted.bits & ~effect.bits:
        missing.append(f"blocks {blocks_of(bits)}")
    if wanted.size_changed and not effect.size_changed:
        missing.append("the changed size")
    if wanted.unreliable and not effect.unreliable:
        missing.append("the mark of lost changes")
    return " and ".join(missing)


def judge_always(bitmap, state):
    """What holds at any moment, while the service runs and after its death."""
    if state is None:
        return f"{bitmap.name} is damaged" if bitmap.wanted else None
    if extra := state.effect.bits & ~bitmap.possible.bits:
        return f"{bitmap.name} has blocks {blocks_of(extra)} that nobody reported"
    if state.effect.size_changed and not bitmap.possible.size_changed:
        return f"{bitmap.name} has a changed size that nobody reported"
    if bitmap.was_unreliable and not state.effect.unreliable:
        return f"{bitmap.name} was unreliable and is no more"
    return None


def judge_settled(bitmap, dead, state):
    """After a start and a synchronization. `dead`: what the death before it had left, None when the
    bitmap is younger."""
    if verdict := judge_always(bitmap, state):
        return verdict
    if state is None:
        return None
    if dead is not None and not dead.looks_clean and not state.effect.unreliable:
        # It says itself that it was left behind, until it is loaded and says so for ever.
        if state.closed_cleanly:
            return f"{bitmap.name} was left behind and is closed cleanly now"
        return None
    if not state.effect.unreliable:
        missing = lacks(state.effect, bitmap.certain)
        return f"{bitmap.name} looks clean and lacks {missing}" if missing else None
    if dead is not None and dead.looks_clean and not bitmap.possible.unreliable:
        return f"{bitmap.name} was clean and is distrusted without a reason"
    return None


def judge_stopped(bitmap, before, state):
    """After an orderly stop. `before`: what it was when everything reported had been settled."""
    if verdict := judge_always(bitmap, state):
        return verdict
    if state is None or before is None or before.effect.unreliable:
        return None
    if bitmap.left_behind:
        return None
    if state.effect.unreliable:
        if bitmap.possible.unreliable:
            return None
        return f"{bitmap.name} was trusted and is unreliable after an orderly stop"
    if not state.closed_cleanly:
        return f"{bitmap.name} was trusted and is not closed cleanly after an orderly stop"
    if state.looks_clean and (missing := lacks(state.effect, bitmap.certain)):
        return f"{bitmap.name} looks clean after an orderly stop and lacks {missing}"
    return None


def judge_list(files, listed):
    """`listed`: {path: (volume, file id)} as the service tells it."""
    expected = {file.path: (file.volume, file.file_id) for file in files if file.tracked}
    allowed = expected | {file.path: (file.volume, file.file_id)
                          for file in files if file.tracked is None}
    for path in expected:
        if path not in listed:
            return f"{path} is not tracked any more"
    for path, identity in listed.items():
        if path not in allowed:
            return f"{path} is tracked and should not be"
        if allowed[path] != identity:
            return f"{path} is tracked as {identity} and not as {allowed[path]}"
    return None
