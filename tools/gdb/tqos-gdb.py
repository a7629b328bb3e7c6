"""What GDB shows of TQOS: lists with their nodes, queues with the messages that wait, messages with their command's name.

    (gdb) source tqos-gdb.py
    (gdb) print *pList
    (gdb) print myQueue
    (gdb) print *pMsg
    (gdb) info tqos-queues

The memory of the process is read as it is: of a process that was stopped in the middle of a change of a list, the list may
look as it never did to a thread that takes its lock. Nothing is called in the process, so a core file will do.
"""
import gdb
import gdb.printing
import gdb.types

MOST_NODES = 10000  # a damaged list may go round for ever


def text_of(pointer):
    """A text of the process; empty for null and for what cannot be read."""
    if int(pointer) == 0:
        return ""
    try:
        return pointer.string(errors="replace")
    except gdb.MemoryError:
        return "?"


def list_of(value):
    """A tq_List's nodes, from its head."""
    entry = value["m_li"]["pHead"]
    for _ in range(MOST_NODES):
        if int(entry) == 0:
            return
        yield entry["pNode"]
        entry = entry["pNext"]


def plain(value):
    """What an atomic holds; any other value as it is."""
    for name in ("_M_i", "_M_base"):
        if value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT and gdb.types.has_field(value.type, name):
            value = value[name]
            return plain(value)
    return value


class ListPrinter:
    """A list: its name, how many nodes, and their addresses."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        state = self.value["m_li"]
        return 'tq_List "%s", %d nodes (at most %d)' % (text_of(state["pName"]), state["Count"], state["maxCount"])

    def children(self):
        for index, node in enumerate(list_of(self.value)):
            yield "[%d]" % index, node

    def display_hint(self):
        return "array"


class MessagePrinter:
    """A message's header, with its command's name. What follows the header is not known here."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        fields = ("hSource", "hDest", "size", "instance", "userparm", "flags")
        return "%s {%s}" % (command_name(int(self.value["command"])),
                            ", ".join("%s = %d" % (name, int(self.value[name])) for name in fields))


class QueuePrinter:
    """A queue: its name and handle, and the messages that wait, those that will be handled first at the front."""

    LISTS = (("high", "m_pQueueHigh"), ("medium", "m_pQueueMed"), ("low", "m_pQueueLow"))

    def __init__(self, value):
        self.value = value

    def waiting(self):
        message = gdb.lookup_type("MSG_COMMON").pointer()
        for name, field in self.LISTS:
            if int(self.value[field]) != 0:
                for index, node in enumerate(list_of(self.value[field].dereference())):
                    yield "%s[%d]" % (name, index), node.cast(message).dereference()

    def to_string(self):
        return 'tq_MsgQ "%s", handle %d, %d waiting' % (
            text_of(self.value["m_pszName"]), int(plain(self.value["m_hSource"])), len(list(self.waiting())))

    def children(self):
        return self.waiting()


def command_names():
    """The names of the library's own commands, from the enumeration that holds them."""
    symbol = gdb.lookup_global_symbol("MSG_USER") or gdb.lookup_symbol("MSG_USER")[0]
    if symbol is None:
        return {}
    return {field.enumval: field.name for field in symbol.type.fields()}


def command_name(command):
    names = command_names()
    user = next((value for value, name in names.items() if name == "MSG_USER"), 65536)
    return "MSG_USER + %d" % (command - user) if command >= user else names.get(command, "command %d" % command)


class QueuesCommand(gdb.Command):
    """Shows every queue that has been created, newest first."""

    def __init__(self):
        super().__init__("info tqos-queues", gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        try:
            queue = gdb.parse_and_eval("'(anonymous namespace)::gpCreated'")
        except gdb.error:
            raise gdb.GdbError("the library's debugging information is not there, or it is not loaded yet")
        while int(queue) != 0:
            gdb.write(QueuePrinter(queue.dereference()).to_string() + "\n")
            queue = queue["m_pNextCreated"]


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("tqos")
    collection.add_printer("tq_List", "^tq_List$", ListPrinter)
    collection.add_printer("tq_MsgQ", "^tq_MsgQ$", QueuePrinter)
    collection.add_printer("MSG_COMMON", "^(_?MSG_COMMON)$", MessagePrinter)
    return collection


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
QueuesCommand()
