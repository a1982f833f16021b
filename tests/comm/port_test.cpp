// Port objects: which map item becomes what kind of port, what is told of it, and how objects share a line.
#include "tests/comm/port_bench.h"

using namespace qel::test;

namespace {

std::string item(const std::string &number, const std::string &keys) {
    return "[[chip.port]]\nnumber = " + number + "\n" + keys + "\n";
}

}  // namespace

TEST(CommPort, OfTheNullPortSucceedsAndDoesNothing) {
    CommBench bench(tty("0"));
    Tracing tracing(bench.board);
    const Port port(bench, QEL_COM_NULL_PORT);
    ComCaps caps{7, 7, 7};
    const ComAttribute attribute{9600, 8, 0, 0, 0};
    char byte = 'x';
    EXPECT_EQ(port->open(port.get()), 0);
    EXPECT_EQ(port->setAttribute(port.get(), &attribute), 0);
    EXPECT_EQ(port->read(port.get(), &byte, 1), 0);
    EXPECT_EQ(port->write(port.get(), &byte, 1), 0);
    EXPECT_EQ(port->purge(port.get(), 77), 0);
    EXPECT_EQ(port->getcaps(port.get(), &caps), 0);
    EXPECT_EQ(caps.lineType, 7);
    EXPECT_EQ(port->close(port.get()), 0);
    EXPECT_EQ(tracing.lines(), std::vector<std::string>());
}

TEST(CommPort, ThatIsNotInTheMapIsRefused) {
    CommBench bench(tty("0"));
    auto *out = reinterpret_cast<CommPort *>(&bench);
    const CommPortDesc desc{7};
    EXPECT_EQ(CALL(bench, createCommPort)(&desc, &out), -1);
    EXPECT_EQ(out, nullptr);
    bench.expect_logged({"[libqel] ERROR  (createCommPort|", "port invalid: 7 \n"});
    EXPECT_EQ(CALL(bench, createCommPort)(nullptr, &out), -1);
    EXPECT_EQ(CALL(bench, createCommPort)(&desc, nullptr), -1);
    EXPECT_EQ(bench.log.count("Para: desc or commPort is NULL!\n"), 2);
}

TEST(CommPort, IsOfTheKindThatMapAndUsageSay) {
    const struct {
        const char *keys, *told;
        bool can_switch;
    } kinds[] = {
        {"kind = 1\nusage = 9", "WARN  (createCommPort|", false},
        {"kind = 1\nusage = 9", "): rigister scm\n", false},
        {"kind = 2\nusage = 1", "): register spiPTZcom\n", false},
        {"kind = 2\nusage = 30", "): register spiPTZcom\n", false},
        {"kind = 2\nusage = 2", "[libqel] port3 register com\n", true},
        {"kind = 3\nusage = 2", "): port3 register uart\n", false},
        {"kind = 4", "[libqel] port3 register mcu\n", false},
        {"kind = 5", "[libqel] port3 register mcu\n", false},
        {"kind = 7\nusage = 24", "[libqel] port3 register PTZ\n", false},
        {"kind = 7\nusage = 4", "[libqel] port3 register Gps data\n", false},
        {"kind = 7\nusage = 28", "[libqel] port3 register COM_IS_PTZ_LOG\n", false},
        {"kind = 7\nusage = 31", "[libqel] port3 register COM_IS_PTZ_PERIPHERAL_FUNC\n", false},
        {"kind = 7\nusage = 5", "[libqel] port3 register com\n", true},
        {"kind = 8\nusage = 4", "[libqel]  QEL_COM_RS232 QEL_COM_FULL_DUPLEX  \n", true},
        {"kind = 8\nusage = 20\ndirection_line = 4", "[libqel]  QEL_COM_RS485 QEL_COM_SEMI_DUPLEX  \n", true},
        {"kind = 8\nusage = 2", "[libqel] port3 register com\n", true},
        {"kind = 0", "[libqel] port3 register com\n", true},
        {"kind = 6\ndirection_line = 4", "[libqel]  QEL_COM_RS485 QEL_COM_SEMI_DUPLEX  \n", true},
    };
    for (const auto &kind : kinds) {
        CommBench bench(item("3", kind.keys));
        const Port port(bench, 3);
        EXPECT_TRUE(bench.log.contains(kind.told)) << kind.keys << "\n" << bench.log.all();
        EXPECT_EQ(port->setComType != nullptr, kind.can_switch) << kind.keys;
        EXPECT_EQ(port->empty, nullptr);
        EXPECT_EQ(port->open(port.get()), -1) << kind.keys << ": the board has no such device";
        EXPECT_EQ(port->close(port.get()), -1) << kind.keys;
    }
}

TEST(CommPort, TellsWhatItsLineCanBe) {
    CommBench bench(item("2", "direction_line = 4\nstatus_line = 5"));
    const Port port(bench, 2);
    ComCaps caps{9, 9, 9};
    EXPECT_EQ(port->getcaps(port.get(), &caps), 0);
    EXPECT_EQ(caps.fixedRs485, 0U);
    EXPECT_EQ(caps.fixedRs232, 0U);
    EXPECT_EQ(caps.lineType, QEL_COM_LINE_SWITCHABLE);
    EXPECT_EQ(port->getcaps(port.get(), nullptr), -1);
    EXPECT_EQ(port->getcaps(nullptr, &caps), -1);
    EXPECT_EQ(bench.log.count("Para: thiz, caps or thiz->priv is NULL!\n"), 2);
    EXPECT_EQ(port->open(nullptr), -1);
    EXPECT_EQ(bench.log.count("Para: thiz or thiz->priv is NULL!\n"), 1);
}

TEST(PortMap, TranslatesEveryUsageCode) {
    constexpr int kNone = -1;
    const int types[] = {1,     2,     10,    0,     11,    13,    12,    kNone, kNone, kNone, kNone,
                         kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone, 1,     kNone,
                         0,     kNone, 12,    16,    17,    0,     19,    20,    21,    22,    20};
    for (size_t usage = 0; usage < std::size(types); ++usage) {
        CommBench bench(item("8", "usage = 0") + item("6", "usage = " + std::to_string(usage)));
        std::array<CommMapInfo, QEL_COM_MAX_PORTS> list{};
        list[2].port = 77;
        const bool known = types[usage] != kNone;
        EXPECT_EQ(CALL(bench, getCommMapInfoList)(list.data()), known ? 0 : -1) << usage;
        EXPECT_EQ(bench.log.contains("Unknown Com MapItem!!\n"), !known) << usage;
        EXPECT_EQ(list[0].port, 8U);
        EXPECT_EQ(list[2].port, 77U) << "behind the last item";
        if (!known) continue;
        EXPECT_EQ(list[1].logicType, static_cast<uint32_t>(types[usage])) << usage;
        EXPECT_EQ(list[1].port, usage == 20 ? 255U : 6U);
    }
}

TEST(PortMap, CountsPortsThatComeAndGoByTheirStatus) {
    CommBench bench(tty("4", "", "type = 3") +
                    tty("5", "", "type = 4\nonly_with_status = true\nstatus_line = 9\nrs485 = true") +
                    tty("6", "", "type = 5\nonly_with_status = true\nstatus_line = 10") +
                    tty("7", "", "only_with_status = true"));
    EXPECT_EQ(CALL(bench, getCommPortCount)(), 3);
    bench.expect_logged(
        {"[libqel] get485Status: status=1\n", "[libqel] s2lm portInfo: level=0,comcount=2\n"});
    uint8_t type = 0;
    EXPECT_EQ(CALL(bench, COMM_getCommType)(6, &type), 0) << "it is among the first three items";
    EXPECT_EQ(type, 5);
    EXPECT_EQ(CALL(bench, COMM_getCommType)(7, &type), -1);
    bench.board.add_fault("/dev/qecMisc ioctl:GET_RS485_STATUS fail EIO");
    EXPECT_EQ(CALL(bench, getCommPortCount)(), 1);
    bench.expect_logged({"): get485Status FAILED!!\n"});
}

TEST(PortMap, ListsGivenTtysAndRefusesNull) {
    CommBench bench(item("1", "tty = 9") + item("0", ""));
    std::array<ComTtyInfo, QEL_COM_MAX_PORTS> list{};
    EXPECT_EQ(CALL(bench, getComTtyInfo)(list.data()), 0);
    EXPECT_EQ(list[0].ttyNumber, 9U);
    EXPECT_EQ(list[0].ttyGiven, 1U);
    EXPECT_EQ(list[1].ttyGiven, 0U);
    EXPECT_EQ(CALL(bench, getComTtyInfo)(nullptr), -1);
    EXPECT_EQ(CALL(bench, getCommMapInfoList)(nullptr), -1);
    EXPECT_EQ(bench.log.count("Para: list is NULL!\n"), 2);
}

TEST(PortMap, ThatTheDriverDoesNotTellIsEmpty) {
    for (const std::string fault : {"ioctl:GET_PORT_MAP fail EIO", "open fail EACCES"}) {
        Board board(comm_board(tty("1"), {}));
        board.enter();
        board.add_fault("/dev/qecMisc " + fault);
        const Log log;
        const Library library;
        EXPECT_TRUE(log.contains("[libqel] ERROR  (QEL_comInit|"));
        EXPECT_TRUE(log.contains("): Fail to Get ComMapInfo\n"));
        EXPECT_EQ(CALL(library, getCommPortCount)(), 0);
        const bool is_there = fault[0] == 'i';
        EXPECT_EQ(CALL(library, QEL_485SetCtl)(1, 0), -1);
        EXPECT_EQ(log.contains("): Fail to set 485 direction of port 1 to 0, errno=13\n"), !is_there);
    }
}

TEST(CommPort, SlotsTellWhatTheirRequestsCameTo) {
    CommBench bench(tty("1", "peer = { kind = \"echo\" }"));
    const Port port(bench, 1);
    char byte = 0;
    EXPECT_EQ(port->read(port.get(), &byte, 1), -1) << "closed";
    EXPECT_EQ(port.write("a"), -1) << "closed";
    bench.expect_logged({"(COMM_write|", "):  comm_write enter \n"});
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port->read(port.get(), &byte, 1), 0) << "time over";
    EXPECT_EQ(port.write("a"), 1);
    EXPECT_EQ(port->read(port.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(port->read(port.get(), nullptr, 1), -1);
    EXPECT_EQ(port->write(port.get(), &byte, 0), -1);
    EXPECT_EQ(bench.board.poke(0, "/dev/ttyS1", {"hang-up"}).value, 0);
    EXPECT_EQ(port->read(port.get(), &byte, 1), -1) << "hung up";
    bench.expect_logged({"(QEL_comRead|", "): read failed, errno="});
}

TEST(CommPort, ObjectsOfOnePortShareItsLineUntilTheLastGoes) {
    CommBench bench(tty("1", "peer = { kind = \"echo\" }"));
    OpenPort first(bench, 1);
    Port second(bench, 1);
    ASSERT_NE(second.get(), nullptr) << "the layer's result is no failure";
    EXPECT_EQ(second.write("s"), 1) << "open already";
    EXPECT_EQ(first.read(1), "s");
    EXPECT_EQ(second->close(second.get()), -1) << "what it did not open it does not close";
    EXPECT_EQ(second->open(second.get()), 0);
    EXPECT_EQ(first->addref(first.get()), 0);
    EXPECT_EQ(first->release(first.get()), 0);
    EXPECT_EQ(first->close(first.get()), 0);
    EXPECT_EQ(second.write("t"), 1);
    EXPECT_EQ(second.read(1), "t");
    second.release();
    EXPECT_EQ(first.write("u"), -1) << "closed with its last opener";
}

TEST(CommPort, OfTheSecondaryControllerAndTheSpiBridgeAreLinesOfTheirOwn) {
    for (const auto &[node, keys] : {std::pair<std::string, const char *>{"/dev/ttySCM3", "kind = 1"},
                                     {"/dev/ttySPI3", "kind = 2\nusage = 30"}}) {
        CommBench bench(item("3", keys) + "[[chip.tty]]\nnode = \"" + node +
                        "\"\nport = 3\npeer = { kind = \"echo\" }\n");
        const Port port(bench, 3);
        const ComAttribute attribute{19200, 7, QEL_COM_PARITY_EVEN, QEL_COM_TWO_STOP_BITS, 0};
        ASSERT_EQ(port.open(), 0) << node;
        EXPECT_EQ(port.write("hello"), 5);
        EXPECT_EQ(port.read(5), "hello");
        EXPECT_EQ(port->setAttribute(port.get(), &attribute), 0);
        EXPECT_EQ(shown(bench.board, node, "settings"), "19200 7E2");
        EXPECT_EQ(port->purge(port.get(), QEL_COM_DISCARD_INPUT), 0);
        EXPECT_EQ(port->close(port.get()), 0);
        EXPECT_EQ(port.write("x"), -1);
    }
}

// Both nodes are tried. Settings that cannot be made end the open, but for raw mode: then the line works as
// it is.
TEST(CommPort, OfAUsbAdapterNamesTheSettingThatFailed) {
    const struct {
        const char *node, *fault, *function, *text;
        int status;
    } settings[] = {
        {"/dev/ttyXRUSB0", "3", "ERROR  (QEL_comOpen_usb|", "): set_USB speed failed\n", -1},
        {"/dev/ttyXRUSB0", "6", "ERROR  (QEL_comOpen_usb|", "): set no parity failed\n", -1},
        {"/dev/ttyUSB0", "9", "ERROR  (QEL_TtyRaw|", "[libqel] ERROR  : tty_raw error!!\n", 0},
    };
    for (const auto &[node, fault, function, text, status] : settings) {
        CommBench bench(item("3", "kind = 8\nusage = 4") + "[[chip.tty]]\nnode = \"" + node + "\"\n");
        const Port port(bench, 3);
        bench.board.add_fault(std::string(node) + " term fail EIO at " + fault);
        EXPECT_EQ(port->open(port.get()), status) << text;
        bench.expect_logged({function, text});
        bench.board.clear_faults();
        EXPECT_EQ(port->open(port.get()), 0);
        EXPECT_EQ(shown(bench.board, node, "settings").substr(0, 6), "115200");
        EXPECT_EQ(bench.log.contains("[libqel] WARN  : Open device /dev/ttyXRUSB0 failed"), status == 0);
    }
}

TEST(CommPort, InsideTheMicrocontrollerLinkReachesTheFarSideOfItsChannel) {
    for (const char *usage : {"24", "28", "31"}) {
        CommBench bench(item("3", std::string("kind = 7\nusage = ") + usage) +
                        "[chip.mcu]\nchannel = [{ number = " + usage + ", peer = { kind = \"echo\" } }]\n");
        const Port port(bench, 3);
        EXPECT_EQ(port.write("x"), -1) << "closed";
        ASSERT_EQ(port.open(), 0) << usage;
        const std::string sent = pattern(1300);  // more than a record holds
        EXPECT_EQ(port.write(sent), 1300) << usage;
        EXPECT_EQ(port.read(1300), sent) << usage;
        EXPECT_EQ(port.write("stale"), 5);
        EXPECT_EQ(port.read(1), "s");
        EXPECT_EQ(port->purge(port.get(), QEL_COM_DISCARD_INPUT), 0);
        EXPECT_EQ(port->purge(port.get(), QEL_COM_SUSPEND_OUTPUT), -1);
        EXPECT_EQ(port.write("new"), 3);
        EXPECT_EQ(port.read(3), "new");
        EXPECT_EQ(port->close(port.get()), 0);
        EXPECT_EQ(port.read(1), "") << "closed";
    }
}

TEST(CommPort, OfSatellitePositionsOnlyReads) {
    CommBench bench(item("3", "kind = 7\nusage = 4") + "[chip.mcu]\nchannel = [{ number = 4 }]\n");
    const OpenPort port(bench, 3);
    EXPECT_EQ(bench.board.poke(0, QEC_MCU_DEVICE, {"channel", "4", "send", "2447474741"}).value, 0);
    EXPECT_EQ(port.read(5), "$GGGA");
    EXPECT_EQ(port.write("x"), -1);
    bench.expect_logged({"): port3 only reads\n"});
}

TEST(CommPort, OnAChannelThatTheMicrocontrollerDoesNotCarryFails) {
    CommBench bench(item("3", "kind = 7\nusage = 24") + "[chip.mcu]\n");
    const Port port(bench, 3);
    EXPECT_EQ(port->open(port.get()), 0);
    char byte = 0;
    EXPECT_EQ(port->read(port.get(), &byte, 1), -1);
    EXPECT_EQ(port.write("x"), -1);
}
