// A device that PyTango is measured with: what it must do is the same as the replay server's. It
// has 1000 attributes, integers and reals in turn, and a command that sends changes.
//
//   peer_device INSTANCE -nodb -dlist DEVICE -ORBendPoint giop:tcp:127.0.0.1:PORT
//
//   t000000 ... t000999   scalar attributes; integers can be written
//   Push(n)               sends n changes of t000000, to the values 1, 2, 3, ...

#include <tango.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int kAttributes = 1000;

std::string NameOf(int nPlace) {
    char szName[16];
    std::snprintf(szName, sizeof szName, "t%06d", nPlace);
    return szName;
}

class CInteger : public Tango::Attr {
  public:
    explicit CInteger(int nPlace)
        : Attr(NameOf(nPlace).c_str(), Tango::DEV_LONG, Tango::READ_WRITE),
          m_nValue(100000 + nPlace) {}
    void read(Tango::DeviceImpl* /*device*/, Tango::Attribute& attribute) override {
        attribute.set_value(&m_nValue);
    }
    void write(Tango::DeviceImpl* /*device*/, Tango::WAttribute& attribute) override {
        Tango::DevLong nValue;  // taken, and not kept: reads go on giving the same
        attribute.get_write_value(nValue);
    }

  private:
    Tango::DevLong m_nValue;
};

class CReal : public Tango::Attr {
  public:
    explicit CReal(int nPlace)
        : Attr(NameOf(nPlace).c_str(), Tango::DEV_DOUBLE, Tango::READ), m_dValue(0.5 * nPlace) {}
    void read(Tango::DeviceImpl* /*device*/, Tango::Attribute& attribute) override {
        attribute.set_value(&m_dValue);
    }

  private:
    Tango::DevDouble m_dValue;
};

class CDevice : public Tango::Device_4Impl {
  public:
    CDevice(Tango::DeviceClass* deviceClass, const char* szName)
        : Device_4Impl(deviceClass, szName) {
        set_change_event(NameOf(0), true, false);  // sent by Push, without a look at the value
    }
    void init_device() override {}
};

class CPush : public Tango::Command {
  public:
    CPush() : Command("Push", Tango::DEV_LONG, Tango::DEV_VOID) {}
    CORBA::Any* execute(Tango::DeviceImpl* device, const CORBA::Any& argument) override {
        Tango::DevLong nChanges;
        extract(argument, nChanges);
        for (Tango::DevLong nValue = 1; nValue <= nChanges; ++nValue)
            device->push_change_event(NameOf(0), &nValue);
        return insert();
    }
};

class CDeviceClass : public Tango::DeviceClass {
  public:
    explicit CDeviceClass(std::string strName) : DeviceClass(strName) {}

    void command_factory() override { command_list.push_back(new CPush); }
    void attribute_factory(std::vector<Tango::Attr*>& attributes) override {
        for (int i = 0; i < kAttributes; ++i) {
            if (i % 2 == 0) {
                attributes.push_back(new CInteger(i));
            } else {
                attributes.push_back(new CReal(i));
            }
        }
    }
    void device_factory(const Tango::DevVarStringArray* names) override {
        for (CORBA::ULong i = 0; i < names->length(); ++i) {
            device_list.push_back(new CDevice(this, (*names)[i]));
            export_device(device_list.back(), (*names)[i]);
        }
    }
};

}  // namespace

void Tango::DServer::class_factory() { add_class(new CDeviceClass("Bench")); }

int main(int argc, char** argv) {
    try {
        Tango::Util* util = Tango::Util::init(argc, argv);
        util->server_init();
        util->server_run();
    } catch (const CORBA::Exception& e) {
        Tango::Except::print_exception(e);
        return 1;
    }
    return 0;
}
