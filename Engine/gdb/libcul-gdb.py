"""Shows the library's types in gdb by what they hold.

gdb loads this file together with the library, see "info auto-load python-scripts";
"source" loads it by hand. The library may be stripped: what its types look like is then read
from "cul/libcul-types.o" beside it. "print/r" shows an object as it is stored, and "disable
pretty-printer global cul" or "... <library> cul" turns the printers off.

An object may be uninitialised, moved or overwritten: what does not fit together is shown
as such, "<no EncodedString: ...>", and nothing is read that the limits of gdb ("set print
elements") do not ask for. Nothing is called in the program.
"""

import datetime
import os
import re

import gdb
import gdb.printing
import gdb.types


class Damaged(Exception):
    """The fields of an object do not fit together."""


def name_of(value):
    return str(gdb.types.get_basic_type(value.type))


def text_of(value, encoding=None):
    """The text of a StringBuffer, read by gdb as far as it prints it."""
    buffer, length = value["buffer"], int(value["len"])
    address = int(buffer)
    if address == 0:
        if length != 0:
            raise Damaged(f"{length} elements at 0x0")
        return buffer.lazy_string(length=0)
    terminator = buffer + length
    try:
        ended = int(terminator.dereference()) == 0
    except gdb.error:
        ended = False
    if not ended:
        raise Damaged(f"{length} elements at {address:#x}")
    return part_of(value, 0, length, encoding)


def part_of(value, start, end, encoding):
    """The elements [start, end) of a StringBuffer."""
    first, length = value["buffer"] + start, end - start
    if length != 0 and int((first + (length - 1)).dereference()) == 0:
        # gdb drops one zero at the end of a text: let it be the terminator.
        length += 1
    if encoding is None:
        return first.lazy_string(length=length)
    return first.lazy_string(encoding, length)


def short_text(value):
    """The UTF-8 text of an EncodedString that is to stand within another text."""
    text_of(value)
    length = min(int(value["len"]), 256)
    if length == 0:
        return ""
    return value["buffer"].string("utf-8", "backslashreplace", length)


class Printer:
    """Shows `summary` and the pairs of `parts`; says so when the object is damaged."""

    hint = None

    def __init__(self, value):
        self.value = value
        # gdb asks a printer for its hint first, so the printer decides here what it can show.
        self.damage = None
        try:
            self.text = self.summary()
        except (gdb.error, Damaged, OverflowError, UnicodeError, ValueError) as error:
            self.damage = f"<no {name_of(value)}: {error}>"
        if self.damage is None and hasattr(self, "parts"):
            self.children = self.all_parts

    def display_hint(self):
        return None if self.damage else self.hint

    def to_string(self):
        return self.damage or self.text

    def all_parts(self):
        try:
            yield from self.parts()
        except (gdb.error, Damaged, OverflowError, UnicodeError, ValueError) as error:
            yield "damaged", f"<{error}>"


class StringPrinter(Printer):
    """CharString, ByteString and what is derived from StringBuffer."""

    hint = "string"

    def summary(self):
        return text_of(self.value)


class EncodedStringPrinter(Printer):
    hint = "string"

    def summary(self):
        return text_of(self.value, "UTF-8")


class FileNamePrinter(EncodedStringPrinter):
    """The text and the parts that the name has, none for an invalid name."""

    def parts(self):
        base, extension, member = (
            int(self.value[field])
            for field in ("basePosition", "extensionPosition", "memberPosition")
        )
        if base == 0:
            return
        length = int(self.value["len"])
        base_end = member - 1 if member else length
        if not base <= base_end <= length or extension and not base <= extension <= base_end:
            raise Damaged("the parts lie outside of the text")
        if base > 1:
            yield "directory", part_of(self.value, 0, base - 1, "UTF-8")
        yield "base", part_of(self.value, base - 1, base_end, "UTF-8")
        if extension != 0:
            yield "extension", part_of(self.value, extension - 1, base_end, "UTF-8")
        if member != 0:
            yield "member", part_of(self.value, member, length - 1, "UTF-8")


def pointee_of(pointer):
    """A pointer and what it points to, when that has a printer of its own."""
    if pointer.type.strip_typedefs().code != gdb.TYPE_CODE_PTR or int(pointer) == 0:
        return pointer
    if pointer.type.strip_typedefs().target().strip_typedefs().code != gdb.TYPE_CODE_STRUCT:
        return pointer
    try:
        target = pointer.dynamic_type.target()
        shown = pointer.cast(target.pointer()).dereference()
        if printers(shown) is None:
            return pointer
        return f"{int(pointer):#x} {shown.format_string()}"
    except gdb.error:
        return pointer


def elements_of(value):
    """The pointer to the elements of a List<T> and their number."""
    implementation, elements = value["implementation_"], value["elements_"]
    count, capacity = int(implementation["count"]), int(implementation["capacity"])
    if count > capacity or (count != 0 and int(elements) == 0):
        raise Damaged(f"{count} of {capacity} elements at {int(elements):#x}")
    if count != 0:
        try:
            elements.dereference().fetch_lazy()
            (elements + (count - 1)).dereference().fetch_lazy()
        except gdb.error:
            raise Damaged(f"{count} of {capacity} elements at {int(elements):#x}") from None
    return elements, count


class ListPrinter(Printer):
    hint = "array"

    def list(self):
        return self.value

    def summary(self):
        self.elements, self.count = elements_of(self.list())
        capacity = int(self.list()["implementation_"]["capacity"])
        return f"{name_of(self.value)} of {self.count}, room for {capacity}"

    def parts(self):
        for index in range(self.count):
            yield f"[{index}]", pointee_of((self.elements + index).dereference())


class OwningListPrinter(ListPrinter):
    def list(self):
        return self.value["objects_"]


class IdListPrinter(Printer):
    """The taken identifiers; a list keeps them in the low 31 bits."""

    hint = "array"
    TAKEN = 0x80000000

    def summary(self):
        self.elements, self.count = elements_of(self.value["elements_"])
        direct = int(self.value["directCount"])
        return f"IdList of {self.count} identifiers, {direct} direct, taken"

    def parts(self):
        for index in range(self.count):
            element = int((self.elements + index).dereference())
            if element & self.TAKEN:
                yield f"[{index}]", element & ~self.TAKEN


class ReferencePrinter(Printer):
    def summary(self):
        self.object = self.value["object_"]
        if int(self.object) == 0:
            return f"{name_of(self.value)} to nothing"
        try:
            # As it is stored: an object that is gone has a count that nobody made.
            count = int(self.object["referenceCount_"])
        except gdb.error:
            return f"{name_of(self.value)}"
        return f"{name_of(self.value)}, one of {count}"

    def parts(self):
        if int(self.object) != 0:
            yield "get()", self.object


class SettingPrinter(Printer):
    """The name, the value, its number and where it comes from."""

    # How the number reads; others have none.
    NUMBERS = {
        "DebuggerBooleanSetting": lambda number: "true" if number else "false",
        "DebuggerEnumSetting": str,
        "DebuggerIntegerSetting": lambda number: str(number - (number >> 31 << 32)),
        "DebuggerListSetting": hex,
        "DebuggerUnsignedSetting": str,
    }

    def summary(self):
        self.value = self.value.cast(self.value.dynamic_type)
        return f"{name_of(self.value)} {short_text(self.value['name_'])}".rstrip()

    def parts(self):
        yield "value", self.value["value_"]
        number = self.NUMBERS.get(name_of(self.value))
        if number is not None:
            yield "number", number(int(self.value["number_"]))
        yield "origin", self.value["origin_"]
        if name_of(self.value) == "DebuggerPathSetting":
            yield "paths", self.value["paths_"]


class SettingsPrinter(Printer):
    """The registry: the settings in the order of their slots."""

    def summary(self):
        self.elements, self.count = elements_of(self.value["settings_"])
        return f"{name_of(self.value)} of {self.count} slots"

    def parts(self):
        for index in range(self.count):
            setting = (self.elements + index).dereference()
            if int(setting) != 0:
                yield short_text(setting["name_"]), setting["value_"]


class ArgListPrinter(Printer):
    """The pairs of names and values in their order."""

    def summary(self):
        self.elements, self.count = elements_of(self.value["pairs_"]["objects_"])
        return f"DebuggerArgList of {self.count}"

    def parts(self):
        for index in range(self.count):
            pair = (self.elements + index).dereference().dereference()
            yield short_text(pair["name"]), pair["value"]


class HashTablePrinter(Printer):
    """The elements, bucket by bucket."""

    hint = "array"
    BUCKETS = 10000000

    def table(self):
        return self.value

    def summary(self):
        self.count, buckets = int(self.table()["count_"]), int(self.table()["bucketCount_"])
        if buckets > self.BUCKETS:
            raise Damaged(f"{self.count} elements in {buckets} buckets")
        return f"{name_of(self.value)} of {self.count}"

    def elements(self):
        """At most as many elements as the table has: chains may have become circles."""
        table, found = self.table(), 0
        for bucket in range(int(table["bucketCount_"])):
            if found == self.count:
                return
            node = table["buckets_"][bucket]
            while int(node) != 0 and found < self.count:
                yield node["element"]
                node = node["next"]
                found += 1
        if found != self.count:
            raise Damaged(f"{found} elements found")

    def parts(self):
        for index, element in enumerate(self.elements()):
            yield f"[{index}]", element


class PropertiesPrinter(HashTablePrinter):
    """The values by their keys."""

    hint = None

    def table(self):
        return self.value["table_"]

    def parts(self):
        for element in self.elements():
            yield short_text(element["key"]), element["value"]


class TimeDateStampPrinter(Printer):
    def summary(self):
        time = int(self.value["time"])
        if time == 0:
            return "unset"
        if time == -1:
            return "unreadable (-1)"
        try:
            date = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=time)
        except OverflowError:
            return f"beyond the calendar ({time})"
        return f"{date} UTC ({time})"


def thread_of(id_value):
    """How gdb calls the thread with a pthread_t."""
    for thread in gdb.selected_inferior().threads():
        try:
            handle = int.from_bytes(thread.handle(), "little")
        except gdb.error:  # without the library that knows threads
            continue
        if handle == int(id_value):
            return f"thread {thread.num}"
    return f"thread {int(id_value):#x}, which is not known"


class CriticalSectionPrinter(Printer):
    def summary(self):
        owner = self.value["owner_"]
        if int(owner) == 0:
            return "free"
        return f"held by {thread_of(owner)}, depth {int(self.value['count_'])}"


class RWlockPrinter(Printer):
    """The threads that hold the lock and how often."""

    def summary(self):
        self.elements, self.count = elements_of(self.value["holders_"])
        readers, writers = (
            int(self.value[field]) for field in ("readersWaiting_", "writersWaiting_")
        )
        held = f"held by {self.count}" if self.count else "free"
        return f"{held}, {readers} wait to read, {writers} to write"

    def parts(self):
        for index in range(self.count):
            holder = (self.elements + index).dereference()
            reads, writes = int(holder["readCount"]), int(holder["writeCount"])
            yield thread_of(holder["thread"]), f"{reads} times to read, {writes} to write"


class EventPrinter(Printer):
    def summary(self):
        return "open" if int(self.value["posted_"]) else "closed"


def make_printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("cul")
    # A class of somebody else that is called alike does not have the field.
    for name, pattern, field, printer in (
        ("StringBuffer", "^StringBuffer<.*>$", "buffer", StringPrinter),
        ("ByteString", "^ByteString$", "buffer", StringPrinter),
        ("CharString", "^CharString$", "buffer", StringPrinter),
        ("EncodedString", "^EncodedString$", "buffer", EncodedStringPrinter),
        ("FileName", "^FileName$", "basePosition", FileNamePrinter),
        ("List", "^List<.*>$", "implementation_", ListPrinter),
        ("OwningList", "^OwningList<.*>$", "objects_", OwningListPrinter),
        ("IdList", "^IdList$", "directCount", IdListPrinter),
        ("Reference", "^Reference<.*>$", "object_", ReferencePrinter),
        ("Setting", "^Debugger[A-Z]?[a-z]*Setting$", "identifier_", SettingPrinter),
        ("Settings", "^DebuggerSettings(HKORV)?$", "settings_", SettingsPrinter),
        ("ArgList", "^DebuggerArgList$", "pairs_", ArgListPrinter),
        ("HashTable", "^SearchList_HashTable<.*>$", "buckets_", HashTablePrinter),
        ("Properties", "^Properties$", "table_", PropertiesPrinter),
        ("TimeDateStamp", "^TimeDateStamp$", "time", TimeDateStampPrinter),
        ("CriticalSection", "^UNIX_Critical_Section$", "owner_", CriticalSectionPrinter),
        ("RWlock", "^RWlock$", "holders_", RWlockPrinter),
        ("Event", "^UNIX_Event_Semaphore$", "posted_", EventPrinter),
    ):

        def make(value, field=field, printer=printer):
            known = gdb.types.has_field(gdb.types.get_basic_type(value.type), field)
            return printer(value) if known else None

        collection.add_printer(name, pattern, make)
    return collection


# Where no program has anything: what lies there is read for its types only, and no other address
# is shown with a name of it.
NOWHERE = 0xFFFF800000000000


def types_are_known():
    try:
        return bool(gdb.lookup_type("StringBuffer<char>").fields())
    except gdb.error:
        return False


def read_types(objfile):
    """Reads the types that lie beside an object file, when it is the library."""
    library = os.path.realpath(objfile.filename or "")
    types = os.path.join(os.path.dirname(library), "cul", "libcul-types.o")
    if not re.match(r"libcul\.so\b", os.path.basename(library)):
        return
    if types_are_known() or not os.path.exists(types):
        return
    try:
        frame = gdb.selected_frame()
    except gdb.error:  # no program runs
        frame = None
    gdb.execute(f'add-symbol-file "{types}" -o {NOWHERE:#x}', False, True)
    if frame is not None and frame.is_valid():
        frame.select()


printers = make_printers()
gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)

if gdb.current_objfile() is not None:
    read_types(gdb.current_objfile())
else:
    for loaded in gdb.objfiles():
        read_types(loaded)
    gdb.events.new_objfile.connect(lambda event: read_types(event.new_objfile))
