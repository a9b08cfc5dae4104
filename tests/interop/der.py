"""DER taken apart and put together. An element is its tag and its bytes, or its elements, of which
some may stand as their encoding."""


class Element:
    def __init__(self, tag, inside):
        self.tag, self.inside = tag, inside

    def __getitem__(self, index):
        return self.inside[index]

    def __setitem__(self, index, value):
        self.inside[index] = value


def parse(encoding):
    """The elements of an encoding in DER."""
    elements = []
    while encoding:
        start, size = 2, encoding[1]
        if size >= 0x80:
            start += size - 0x80
            size = int.from_bytes(encoding[2:start], "big")
        inside = encoding[start:start + size]
        elements.append(Element(encoding[0], parse(inside) if encoding[0] & 0x20 else inside))
        encoding = encoding[start + size:]
    return elements


def build(element, ber=""):
    """The encoding in DER, or with all lengths long ("long", but for nothing, whose long length not
    every OpenSSL reads) or indefinite where they can be."""
    if isinstance(element, bytes):
        return element
    constructed = isinstance(element.inside, list)
    inside = b"".join(build(e, ber) for e in element.inside) if constructed else element.inside
    if constructed and ber == "indefinite":
        return bytes([element.tag, 0x80]) + inside + b"\0\0"
    if ber == "long" and inside or len(inside) >= 0x80:
        size = len(inside).to_bytes(4, "big")
        size = size if ber else size.lstrip(b"\0")
        return bytes([element.tag, 0x80 + len(size)]) + size + inside
    return bytes([element.tag, len(inside)]) + inside


def element(tag, *inside):
    return Element(tag, [*inside])


def sequence(*inside):
    return element(0x30, *inside)


def oid(dotted):
    """An OBJECT IDENTIFIER."""
    first, second, *rest = map(int, dotted.split("."))
    out = [40 * first + second]
    for number in rest:
        out += [number >> 7 * i & 0x7F | 0x80 for i in range(4, 0, -1) if number >> 7 * i]
        out.append(number & 0x7F)
    return Element(6, bytes(out))


def attribute(name, *values):
    return sequence(oid(name), element(0x31, *values))
