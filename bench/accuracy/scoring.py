"""Compares words that were understood with words that were said."""

import re

NUMBERS = "zero one two three four five six seven eight nine ten eleven twelve".split()


def words_of(text):
    """The words as the transcripts write them: no capitals and signs, numbers and titles in full."""
    text = text.lower().replace("mr.", "mister")
    text = re.sub(r"\bmr\b", "mister", text)

    def spoken(match):
        number = int(match[0])
        return NUMBERS[number] if number < len(NUMBERS) else " ".join(NUMBERS[int(digit)] for digit in match[0])

    text = re.sub(r"\d+", lambda match: f" {spoken(match)} ", text)
    return re.sub(r"[^a-z' ]", " ", text).split()


def align(said, understood):
    """Pairs of indexes (said, understood) with the fewest errors; one of the two is None for a deletion or an insertion."""
    costs = [list(range(len(understood) + 1))]
    for row, word in enumerate(said, 1):
        costs.append([row])
        for column, other in enumerate(understood, 1):
            costs[row].append(min(costs[row - 1][column] + 1, costs[row][column - 1] + 1,
                                  costs[row - 1][column - 1] + (word != other)))
    pairs = []
    row, column = len(said), len(understood)
    while row or column:
        here = costs[row][column]
        if row and column and here == costs[row - 1][column - 1] + (said[row - 1] != understood[column - 1]):
            row, column = row - 1, column - 1
            pairs.append((row, column))
        elif row and here == costs[row - 1][column] + 1:
            row -= 1
            pairs.append((row, None))
        else:
            column -= 1
            pairs.append((None, column))
    return pairs[::-1]


def matches(said, understood):
    """The indexes in `said` of the words that were understood."""
    return {row for row, column in align(said, understood)
            if row is not None and column is not None and said[row] == understood[column]}


def error_count(said, understood):
    return sum(row is None or column is None or said[row] != understood[column] for row, column in align(said, understood))


def taken_back(shown, later):
    """How many of the words shown the later text no longer has in their place."""
    return len(shown) - len(matches(shown, later))


def describe(said, understood):
    """The alignment as a text: [said>understood] [-lost] [+added]."""
    parts = []
    for row, column in align(said, understood):
        if row is None:
            parts.append(f"[+{understood[column]}]")
        elif column is None:
            parts.append(f"[-{said[row]}]")
        elif said[row] != understood[column]:
            parts.append(f"[{said[row]}>{understood[column]}]")
        else:
            parts.append(said[row])
    return " ".join(parts)
