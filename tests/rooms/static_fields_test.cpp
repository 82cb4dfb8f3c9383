// What a component's type and capabilities bring, and the identity texts.

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include "kavdata/build_info.h"
#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

constexpr uint32_t sensor_type = 30;
constexpr fake_capability fru_info = {CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO};

// Class of each component type, written out in full.
constexpr int class_of[] = {
    2, 1, 3, 3, 6, 1, 5, 5, 5, 9, 9, 1, 7, 7, 5, 9, 1, 1, 1, 1, // 0
    1, 1, 1, 1, 1, 1, 1, 1, 1, 9, 1, 1, 1, 5, 5, 5, 1, 1, 1, 1, // 20
    9, 5, 7, 7, 6, 6, 1, 9, 4, 1, 1, 1, 9, 1, 1, 5, 5, 1, 1, 1, // 40
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, // 60
    1, 1, 5, 9, 1, 1, 1, 1, 9, 9, 9, 1, 2, 1, 6, 9, 1, 1, 9, 2, // 80
    1, 1, 1, 9, 5, 5, 7, 7, 7, 1, 1, 1, 1, 1, 1, 9, 1, 1, 1, 1, // 100
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 5, 5, // 120
    1, 1, 1, 1, 1, 1, 1, 1, 1, 9, 1, 1, 5, 5, 5, 5, 5, 5, 4, 5, // 140
    5, 9, 9, 5, 4, 9, 1, 1, 1, 1, 1, 1, 1, 9, 9, 1, 5, 1, 1, 1, // 160
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, // 180
    1,                                                          // 200
};
static_assert(std::size(class_of) == 201);

// An entry as build_phys_entry hands it on, with a type and capabilities; it
// frees what it owns.
class owned_entry
{
  public:
    explicit owned_entry(const char *name, uint32_t type = 200,
                         std::initializer_list<fake_capability> capabilities = {})
    {
        const fake_component c = component(name ? name : "", type, capabilities);
        std::copy(c.capabilities.begin(), c.capabilities.end(), entry_.capiCaps);
        entry_.capiComponentType = type;
        entry_.entPhysicalIndex = 1;
        entry_.entPhysicalName = name ? fake_system::heap_text(name) : nullptr;
        entry_.holderCol2 = static_cast<char *>(fake_system::heap_block(HOLDER_TEXT_SIZE));
        entry_.holderCol2[0] = '\0';
    }
    ~owned_entry()
    {
        for (char *text :
             {entry_.entPhysicalName, entry_.entPhysicalHardwareRev, entry_.entPhysicalFirmwareRev,
              entry_.entPhysicalSoftwareRev, entry_.entPhysicalSerialNum, entry_.entPhysicalMfgName,
              entry_.entPhysicalModelName, entry_.entPhysicalAlias, entry_.entPhysicalAssetID,
              entry_.holderCol2}) {
            free(text);
        }
    }
    owned_entry(const owned_entry &) = delete;
    owned_entry &operator=(const owned_entry &) = delete;
    phys_entry *operator->() { return &entry_; }
    phys_entry *get() { return &entry_; }

  private:
    phys_entry entry_ = {};
};

class static_fields : public cache_test
{
  protected:
    static_fields()
    {
        set_text(platform->product.model, "product model");
        set_text(platform->product.serial, "product serial");
        set_text(platform->product.description, "product description");
        set_text(platform->chassis.model, "chassis model");
        set_text(platform->chassis.serial, "chassis serial");
        set_text(platform->chassis.description, "chassis description");
        set_text(platform->chassis.manufacturer, "chassis maker");
        no_version_file();
    }

    void build_one(uint32_t type, std::initializer_list<fake_capability> capabilities = {},
                   const char *name = "/SYS/X")
    {
        reset();
        platform->components = {component("/SYS", plain), component(name, type, capabilities)};
        init_local_cache();
        ASSERT_NE(entry(), nullptr);
    }

    static phys_entry *entry() { return get_entry(2); }

    void build_sensor(const capi_sensor_record &record, uint32_t type = sensor_type)
    {
        platform->sensor_types = {type};
        platform->sensors["/SYS/X"] = record;
        build_one(type);
    }

    static capi_fru_record fru()
    {
        capi_fru_record record = {};
        set_text(record.model, "fru model");
        set_text(record.manufacturer, "fru maker");
        set_text(record.serial, "fru serial");
        set_text(record.alias, "fru alias");
        set_text(record.software_revision, "fru software");
        return record;
    }

    // ---- The version file, which no test may take from the machine ----

    static constexpr const char *version_path = "/etc/static_conf/version.dat";

    static std::string scratch_path()
    {
        return testing::TempDir() + "kavplat_version_" + std::to_string(getpid());
    }
    void no_version_file() { fake_system::redirect_path(version_path, scratch_path() + ".absent"); }
    std::string revision_from(const std::string &content)
    {
        const std::string path = scratch_path();
        std::ofstream(path, std::ios::binary) << content;
        fake_system::redirect_path(version_path, path);
        owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
        EXPECT_EQ(snmp_read_product_info(e.get()), 0);
        EXPECT_EQ(std::remove(path.c_str()), 0);
        no_version_file();
        return e->entPhysicalFirmwareRev ? e->entPhysicalFirmwareRev : "(null)";
    }
    static std::string default_revision()
    {
        return std::string("System Firmware : dev build ") + kavplat::build_user + " (r108523) " +
               kavplat::build_date;
    }
};

// ---- read_static_data ----

TEST_F(static_fields, without_an_entry)
{
    const agent_log log;
    read_static_data(nullptr, 3);
    get_static_fields(nullptr);
    EXPECT_EQ(log.texts(LOG_ERR), (strings{"read_static_data:FAILED:entry NULL\n",
                                           "get_static_fields:FAILED:entry NULL\n"}));
    EXPECT_TRUE(platform.all_calls().empty());
}

TEST_F(static_fields, description)
{
    platform->descriptions[plain] = "a very plain component";
    build_one(plain);
    EXPECT_STREQ(entry()->entPhysicalDescr, "a very plain component");
    platform->descriptions[plain] = std::string(300, 'd');
    build_one(plain);
    EXPECT_EQ(entry()->entPhysicalDescr, std::string(255, 'd'));
}

TEST_F(static_fields, a_failed_or_null_description_is_the_empty_text)
{
    platform->descriptions[plain] = std::nullopt;
    build_one(plain);
    EXPECT_STREQ(entry()->entPhysicalDescr, "");
    platform->fail["capi_get_component_desc_str"] = -1; // and leaves a wild pointer
    build_one(plain);
    EXPECT_STREQ(entry()->entPhysicalDescr, "");
}

TEST_F(static_fields, each_component_type_has_its_class)
{
    for (uint32_t type = 0; type < std::size(class_of); type++) {
        build_one(type);
        EXPECT_EQ(entry()->entPhysicalClass, class_of[type]) << "type " << type;
        EXPECT_STREQ(entry()->holderCol2, class_of[type] == 5 ? "component" : "") << type;
        EXPECT_EQ(entry()->equipmentCol4, class_of[type] == 2 ? 1 : 2) << type;
        EXPECT_EQ(entry()->platPhysicalClass, 1) << type;
        EXPECT_EQ(entry()->sensorKind, 0) << type;
    }
    for (const uint32_t type : {255U, 256U, 432U, 65536U + 12U, 0x80000000U, 0xFFFFFFFFU}) {
        build_one(type);
        EXPECT_EQ(entry()->entPhysicalClass, 1) << "type " << type;
    }
}

TEST_F(static_fields, only_chassis_types_and_the_midplane_ask_for_identity)
{
    for (uint32_t type = 0; type < std::size(class_of); type++) {
        platform.forget_calls();
        build_one(type);
        const size_t product = type == 2 || type == 3 ? 1 : 0;
        const size_t chassis = type == 59 ? 1 : 0;
        EXPECT_EQ(platform.calls("capi_get_product_ops_info"), product) << type;
        EXPECT_EQ(platform.calls("capi_get_product_vantor_id", "51"), product) << type;
        EXPECT_EQ(platform.calls("capi_get_chassis_ops_info"), chassis) << type;
        EXPECT_EQ(platform.calls("capi_get_chassis_vantor_id", "51"), chassis) << type;
        EXPECT_EQ(platform.calls("capi_get_product_vantor_id"), product) << type;
        EXPECT_EQ(platform.calls("capi_get_chassis_vantor_id"), chassis) << type;
    }
}

TEST_F(static_fields, class_traces)
{
    const auto traced_for = [&](uint32_t type) {
        platform->components = {component("/SYS", type)};
        reset();
        const agent_log log({"kavdata::cache", "trace"});
        init_local_cache();
        strings texts;
        for (const std::string &text : log.debug_texts("kavdata::cache")) {
            if (text.find("_TYPE") != std::string::npos) {
                texts.push_back(text);
                EXPECT_TRUE(log.traced("kavdata::cache", text, "read_static_data", "kavdata"));
            }
        }
        return texts;
    };
    const std::string system = "SYS_TYPE (unless prev line said CHASSIS)\n";
    EXPECT_EQ(traced_for(2), (strings{"CHASSIS_TYPE\n", system}));
    EXPECT_EQ(traced_for(3), strings{system});
    EXPECT_EQ(traced_for(59), strings{"MIDPLANE_TYPE\n"});
    EXPECT_EQ(traced_for(60), strings());
}

TEST_F(static_fields, the_type_is_traced_with_its_class_and_description)
{
    platform->descriptions[12] = "a fan";
    platform->components = {component("/SYS", plain), component("/SYS/X", 12)};
    const agent_log log({"kavdata::cache", "trace"});
    init_local_cache();
    const std::string text = "capi type   12 -> entPhysClass 7: a fan\n";
    EXPECT_TRUE(log.traced("kavdata::cache", text, "read_static_data", "kavdata"));
    EXPECT_TRUE(log.traced("kavdata::cache", "read_static_data:init entPhysicalDescr:[a fan]\n",
                           "read_static_data", "kavdata"));
}

TEST_F(static_fields, an_indicator_type_is_other_and_an_indicator)
{
    platform->indicator_types = {12};
    build_one(12); // else a fan
    EXPECT_EQ(entry()->entPhysicalClass, 1);
    EXPECT_EQ(entry()->platPhysicalClass, 2);
    // Who cannot say is no indicator, even if the flag says so.
    platform->fail["capi_is_indicator_type"] = -1;
    platform->answer_on_failure = true;
    build_one(12);
    EXPECT_EQ(entry()->entPhysicalClass, 7);
    EXPECT_EQ(entry()->platPhysicalClass, 1);
}

// ---- Sensors ----

TEST_F(static_fields, a_sensor_type_goes_before_an_indicator_type)
{
    platform->indicator_types = {sensor_type};
    build_sensor(threshold_sensor(0, 0.0F));
    EXPECT_EQ(entry()->entPhysicalClass, 8);
    EXPECT_EQ(entry()->platPhysicalClass, 1);
    platform->fail["capi_is_sensor_type"] = 1;
    platform->answer_on_failure = true;
    build_one(sensor_type);
    EXPECT_EQ(entry()->entPhysicalClass, 1);
    EXPECT_EQ(entry()->platPhysicalClass, 2);
    EXPECT_EQ(entry()->sensorCol2, 2);
}

TEST_F(static_fields, a_sensor_of_which_nothing_is_known_stays_a_sensor)
{
    platform->fail["capi_get_sensor_info"] = -8;
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_HUMIDITY, 0.0F);
    record.units = CAPI_UNITS_PERCENT;
    const agent_log log;
    build_sensor(record);
    EXPECT_EQ(entry()->entPhysicalClass, 8);
    EXPECT_EQ(entry()->sensorCol2, 1);
    EXPECT_EQ(entry()->sensorKind, 0);
    EXPECT_EQ(entry()->numericSensorCol1, 1);
    EXPECT_EQ(entry()->thresholdMask, 0xFC);
    EXPECT_EQ(platform.calls("capi_get_sensor_info", "/SYS/X"), 1U);
    EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);
}

TEST_F(static_fields, a_slot_identity_is_numeric_and_no_more)
{
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_HUMIDITY, 0.0F);
    record.units = CAPI_UNITS_PERCENT;
    record.upper_fatal = 50.0F;
    const agent_log log({"kavdata::sensor", "trace"});
    build_sensor(record, CAPI_TYPE_SLOT_IDENTITY);
    EXPECT_EQ(entry()->entPhysicalClass, 8);
    EXPECT_EQ(entry()->sensorKind, 2);
    EXPECT_EQ(entry()->sensorCol2, 1);
    EXPECT_EQ(entry()->numericSensorCol1, 1);
    EXPECT_EQ(entry()->numericSensorCol13, 0);
    EXPECT_EQ(entry()->thresholdMask, 0xFC);
    EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings{"read_static_data:SLOTID\n"});
    EXPECT_TRUE(
        log.traced("kavdata::sensor", "read_static_data:SLOTID\n", "read_static_data", "kavdata"));
}

TEST_F(static_fields, a_sensor_record_type_of_26_is_no_slot_identity)
{
    build_sensor(discrete_sensor(26, 0.0F));
    EXPECT_EQ(entry()->sensorKind, 1);
}

TEST_F(static_fields, a_discrete_sensor_is_binary_of_its_type)
{
    const std::map<int32_t, std::pair<const char *, int>> known = {{7, {"PRESENCE", 12}},
                                                                   {2, {"VOLTAGE", 4}},
                                                                   {1, {"TEMPERATURE", 3}},
                                                                   {3, {"CURRENT", 5}},
                                                                   {4, {"TACHOMETER", 6}}};
    for (int32_t type = -1; type <= 30; type++) {
        capi_sensor_record record = discrete_sensor(type, 2.0F);
        record.units = CAPI_UNITS_RPM;
        record.upper_fatal = 9.0F;
        const agent_log log({"kavdata::sensor", "trace"});
        build_sensor(record);
        const auto found = known.find(type);
        const char *what = found != known.end() ? found->second.first : "OTHER";
        EXPECT_EQ(entry()->sensorKind, 1) << type;
        EXPECT_EQ(entry()->sensorCol2, found != known.end() ? found->second.second : 1) << type;
        EXPECT_EQ(entry()->numericSensorCol1, 1) << type;
        EXPECT_EQ(entry()->numericSensorCol13, 0) << type;
        const std::string text = text_of("read_static_data:%s\n", what);
        EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings{text});
        EXPECT_TRUE(log.traced("kavdata::sensor", text, "read_static_data", "kavdata"));
    }
}

TEST_F(static_fields, a_numeric_sensor_has_type_and_base_units_of_its_units)
{
    const std::map<int32_t, std::pair<int, int>> known = {
        {1, {3, 3}}, {2, {3, 4}},  {3, {3, 5}},  {4, {4, 6}},  {5, {5, 7}},
        {6, {1, 8}}, {7, {6, 20}}, {8, {1, 21}}, {9, {1, 66}}, {10, {1, 24}},
    };
    for (int32_t units = -1; units <= 30; units++) {
        for (const int32_t type : {1, 4, 7, 19}) {
            capi_sensor_record record = threshold_sensor(type, 1.0F);
            record.units = units;
            build_sensor(record);
            const auto found = known.find(units);
            const auto [of_units, base] =
                found != known.end() ? found->second : std::pair<int, int>{1, 1};
            EXPECT_EQ(entry()->sensorKind, 2) << units;
            EXPECT_EQ(entry()->sensorCol2, type == 19 ? 10 : of_units) << units;
            EXPECT_EQ(entry()->numericSensorCol1, base) << units;
        }
    }
}

TEST_F(static_fields, a_numeric_sensor_has_its_thresholds_from_the_start)
{
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 20.0F);
    record.upper_fatal = 90.9F;
    record.lower_non_critical = -5.9F;
    record.flags = CAPI_UPPER_FATAL_VALID | CAPI_LOWER_NON_CRITICAL_VALID;
    const agent_log log({"kavdata::sensor", "trace"});
    build_sensor(record);
    EXPECT_EQ(entry()->numericSensorCol13, 90);
    EXPECT_EQ(entry()->numericSensorCol8, -5);
    EXPECT_EQ(entry()->thresholdMask, 0x84);
    EXPECT_EQ(
        log.debug_texts("kavdata::sensor"),
        (strings{"read_static_data:NUMERIC\n", "utf=90, utc=0, utnc=0, ltf=0, ltc=0, ltnc=-5\n"}));
    EXPECT_TRUE(
        log.traced("kavdata::sensor", "read_static_data:NUMERIC\n", "read_static_data", "kavdata"));
}

TEST_F(static_fields, a_sensor_of_another_class_is_no_more_than_a_sensor)
{
    for (const int32_t sensor_class : {0, 3, -1}) {
        capi_sensor_record record = threshold_sensor(CAPI_SENSOR_HUMIDITY, 0.0F);
        record.sensor_class = sensor_class;
        record.units = CAPI_UNITS_RPM;
        const agent_log log({"kavdata::sensor"});
        build_sensor(record);
        EXPECT_EQ(entry()->sensorKind, 0);
        EXPECT_EQ(entry()->sensorCol2, 1);
        EXPECT_EQ(entry()->numericSensorCol1, 1);
        EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings());
    }
}

// ---- Chassis, system and midplane ----

TEST_F(static_fields, the_system_takes_the_product_texts)
{
    for (const uint32_t type : {2U, 3U}) {
        build_one(type);
        EXPECT_EQ(entry()->entPhysicalClass, 3);
        EXPECT_STREQ(entry()->entPhysicalSerialNum, "product serial");
        EXPECT_STREQ(entry()->entPhysicalModelName, "product model");
        EXPECT_STREQ(entry()->entPhysicalMfgName, "Telvane Corporation");
        EXPECT_STREQ(entry()->entPhysicalDescr, "product description");
        EXPECT_EQ(entry()->entPhysicalFirmwareRev, default_revision());
        EXPECT_STREQ(entry()->entPhysicalAlias, "product-id");
        EXPECT_EQ(entry()->entPhysicalSoftwareRev, nullptr);
    }
}

TEST_F(static_fields, the_midplane_takes_the_chassis_texts)
{
    build_one(CAPI_TYPE_MIDPLANE);
    EXPECT_EQ(entry()->entPhysicalClass, 1);
    EXPECT_STREQ(entry()->entPhysicalSerialNum, "chassis serial");
    EXPECT_STREQ(entry()->entPhysicalModelName, "chassis model");
    EXPECT_STREQ(entry()->entPhysicalMfgName, "chassis maker");
    EXPECT_STREQ(entry()->entPhysicalDescr, "chassis description");
    EXPECT_STREQ(entry()->entPhysicalAlias, "chassis-id");
    EXPECT_EQ(entry()->entPhysicalFirmwareRev, nullptr);
}

TEST_F(static_fields, the_fru_alias_of_the_system_gives_way_to_the_vantor_id)
{
    platform->frus["/SYS/X"] = fru();
    build_one(CAPI_TYPE_SYSTEM, {fru_info});
    EXPECT_STREQ(entry()->entPhysicalAlias, "product-id");
    platform->fail["capi_get_product_vantor_id"] = -1;
    build_one(CAPI_TYPE_SYSTEM, {fru_info});
    EXPECT_STREQ(entry()->entPhysicalAlias, "fru alias");
    // Nothing else of the FRU record, and no FRU record without the capability.
    EXPECT_STREQ(entry()->entPhysicalSerialNum, "product serial");
    EXPECT_EQ(entry()->entPhysicalSoftwareRev, nullptr);
    platform.forget_calls();
    build_one(CAPI_TYPE_SYSTEM);
    EXPECT_EQ(entry()->entPhysicalAlias, nullptr);
    EXPECT_EQ(platform.calls("capi_get_fru_info"), 0U);
    platform->fail["capi_get_fru_info"] = -1;
    const agent_log log;
    build_one(CAPI_TYPE_SYSTEM, {fru_info});
    EXPECT_EQ(entry()->entPhysicalAlias, nullptr);
    EXPECT_EQ(log.texts(LOG_ERR), strings());
}

TEST_F(static_fields, a_vantor_id_is_cut_to_31_characters)
{
    platform->product_vantor_id = std::string(60, 'v');
    const agent_log log;
    build_one(CAPI_TYPE_SYSTEM);
    EXPECT_EQ(entry()->entPhysicalAlias, std::string(31, 'v'));
    // The buffer takes 50 of them.
    EXPECT_EQ(log.texts(LOG_ERR), strings{"replaceString:source string length (50)exceeds "
                                          "maximum (32) and will be truncated\n"});
}

TEST_F(static_fields, no_product_texts)
{
    platform->fail["capi_get_product_ops_info"] = -3;
    {
        const agent_log log;
        owned_entry e("/SYS");
        EXPECT_EQ(snmp_read_product_info(e.get()), -1);
        EXPECT_EQ(log.texts(LOG_ERR),
                  strings{"snmp_read_product_info:FAILED:capi_get_product_ops_info\n"});
        EXPECT_EQ(e->entPhysicalSerialNum, nullptr);
        EXPECT_EQ(e->entPhysicalMfgName, nullptr);
        EXPECT_EQ(e->entPhysicalFirmwareRev, nullptr);
    }
    build_one(CAPI_TYPE_SYSTEM); // the entry is kept, and has its vantor id
    EXPECT_STREQ(entry()->entPhysicalDescr, "a component");
    EXPECT_STREQ(entry()->entPhysicalAlias, "product-id");
}

TEST_F(static_fields, product_texts_without_entry_or_name)
{
    const agent_log log;
    owned_entry nameless(nullptr);
    EXPECT_EQ(snmp_read_product_info(nullptr), -1);
    EXPECT_EQ(snmp_read_product_info(nameless.get()), -1);
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{"snmp_read_product_info:FAILED:entry NULL\n",
                       "snmp_read_product_info:FAILED:entPhysicalName NULL\n"}));
    EXPECT_EQ(platform.calls("capi_get_product_ops_info"), 0U);
}

TEST_F(static_fields, no_chassis_texts)
{
    const agent_log log;
    add_chassis_info(nullptr);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"add_chassis_info:FAILED:entry NULL\n"});
    platform->fail["capi_get_chassis_ops_info"] = -3;
    owned_entry e("/SYS/MID");
    add_chassis_info(e.get());
    EXPECT_TRUE(log.has(LOG_ERR, "add_chassis_info:FAILED:capi_get_chassis_ops_info\n"));
    EXPECT_EQ(e->entPhysicalModelName, nullptr);
    EXPECT_STREQ(e->entPhysicalDescr, "");
    platform->fail["capi_get_chassis_vantor_id"] = -3;
    build_one(CAPI_TYPE_MIDPLANE);
    EXPECT_EQ(entry()->entPhysicalAlias, nullptr);
}

// ---- FRU texts ----

TEST_F(static_fields, fru_texts)
{
    platform->frus["/SYS/X"] = fru();
    const agent_log log({"kavdata::fruid", "trace"});
    owned_entry e("/SYS/X");
    EXPECT_EQ(snmp_read_fru(e.get()), 0);
    EXPECT_STREQ(e->entPhysicalModelName, "fru model");
    EXPECT_STREQ(e->entPhysicalMfgName, "fru maker");
    EXPECT_STREQ(e->entPhysicalSerialNum, "fru serial");
    EXPECT_STREQ(e->entPhysicalAlias, "fru alias");
    EXPECT_STREQ(e->entPhysicalSoftwareRev, "fru software");
    EXPECT_EQ(e->entPhysicalHardwareRev, nullptr);
    EXPECT_EQ(e->entPhysicalFirmwareRev, nullptr);
    EXPECT_EQ(e->entPhysicalAssetID, nullptr);
    EXPECT_TRUE(log.traced("kavdata::fruid", "snmp_read_fru:entPhysicalName:[/SYS/X]\n",
                           "snmp_read_fru", "kavdata"));
}

TEST_F(static_fields, no_fru_texts)
{
    const agent_log log;
    owned_entry e("/SYS/X");
    owned_entry nameless(nullptr);
    EXPECT_EQ(snmp_read_fru(nullptr), -1);
    EXPECT_EQ(snmp_read_fru(nameless.get()), -1);
    EXPECT_EQ(snmp_read_fru(e.get()), -1);
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{"snmp_read_fru:FAILED:entry NULL\n",
                       "snmp_read_fru:FAILED:entry->entPhysicalName NULL\n",
                       "snmp_read_fru:FAILED:capi_get_fru_info for entPhysicalName /SYS/X\n"}));
    EXPECT_EQ(e->entPhysicalSerialNum, nullptr);
}

TEST_F(static_fields, a_serial_number_of_40_characters_keeps_31)
{
    capi_fru_record record = fru();
    const std::string serial = "0123456789012345678901234567890123456789";
    set_text(record.serial, serial);
    set_text(record.alias, std::string(32, 'a')); // as long as the maximum: cut in silence
    set_text(record.model, std::string(79, 'm'));
    platform->frus["/SYS/X"] = record;
    const agent_log log;
    owned_entry e("/SYS/X");
    EXPECT_EQ(snmp_read_fru(e.get()), 0);
    EXPECT_EQ(e->entPhysicalSerialNum, serial.substr(0, 31));
    EXPECT_EQ(e->entPhysicalAlias, std::string(31, 'a'));
    EXPECT_EQ(e->entPhysicalModelName, std::string(79, 'm'));
    EXPECT_EQ(log.texts(LOG_ERR), strings{"replaceString:source string length (40)exceeds "
                                          "maximum (32) and will be truncated\n"});
}

// Each field of a record filled to its end with a letter of its own.
TEST_F(static_fields, each_text_ends_within_its_field_and_has_its_maximum)
{
    capi_fru_record fru = {};
    memset(fru.model, 'a', sizeof fru.model);
    memset(fru.manufacturer, 'b', sizeof fru.manufacturer);
    memset(fru.serial, 'c', sizeof fru.serial);
    memset(fru.alias, 'd', sizeof fru.alias);
    memset(fru.software_revision, 'e', sizeof fru.software_revision);
    platform->frus["/SYS/X"] = fru;
    memset(platform->product.model, 'f', sizeof platform->product.model);
    memset(platform->product.serial, 'g', sizeof platform->product.serial);
    memset(platform->product.description, 'h', sizeof platform->product.description);
    memset(platform->chassis.model, 'i', sizeof platform->chassis.model);
    memset(platform->chassis.serial, 'j', sizeof platform->chassis.serial);
    memset(platform->chassis.description, 'k', sizeof platform->chassis.description);
    memset(platform->chassis.manufacturer, 'l', sizeof platform->chassis.manufacturer);

    struct text {
        char *phys_entry::*field;
        char letter;
        uint32_t maximum;
    };
    struct {
        void (*read)(phys_entry *);
        char description; // else none
        std::vector<text> texts;
    } const cases[] = {{[](phys_entry *e) { EXPECT_EQ(snmp_read_fru(e), 0); },
                        '\0',
                        {{&phys_entry::entPhysicalModelName, 'a', 255},
                         {&phys_entry::entPhysicalMfgName, 'b', 255},
                         {&phys_entry::entPhysicalSerialNum, 'c', 32},
                         {&phys_entry::entPhysicalAlias, 'd', 32},
                         {&phys_entry::entPhysicalSoftwareRev, 'e', 255}}},
                       {[](phys_entry *e) { EXPECT_EQ(snmp_read_product_info(e), 0); },
                        'h',
                        {{&phys_entry::entPhysicalSerialNum, 'g', 32},
                         {&phys_entry::entPhysicalModelName, 'f', 255},
                         {&phys_entry::entPhysicalAlias, 'd', 32}}},
                       {add_chassis_info,
                        'k',
                        {{&phys_entry::entPhysicalModelName, 'i', 255},
                         {&phys_entry::entPhysicalSerialNum, 'j', 32},
                         {&phys_entry::entPhysicalMfgName, 'l', 255}}}};
    std::map<const void *, size_t> sizes;
    fake_system::on_calloc.set([&](size_t count, size_t size) {
        void *block = calloc(count, size);
        sizes[block] = count * size;
        return block;
    });
    for (const auto &c : cases) {
        owned_entry e("/SYS/X", plain, {fru_info});
        strings told;
        const agent_log log;
        c.read(e.get());
        EXPECT_EQ(e->entPhysicalDescr, std::string(c.description ? 79 : 0, c.description));
        for (const text &t : c.texts) {
            EXPECT_EQ(e.get()->*t.field, std::string(t.maximum == 32 ? 31 : 79, t.letter));
            EXPECT_EQ(sizes[e.get()->*t.field], t.maximum + 1) << t.letter;
            if (t.maximum == 32) {
                told.emplace_back("replaceString:source string length (79)exceeds maximum (32) "
                                  "and will be truncated\n");
            }
        }
        EXPECT_EQ(log.texts(LOG_ERR), told);
    }
    owned_entry e("/SYS/X");
    EXPECT_EQ(snmp_read_product_info(e.get()), 0);
    EXPECT_EQ(sizes[e->entPhysicalMfgName], 256U);
    EXPECT_EQ(sizes[e->entPhysicalFirmwareRev], 255U);
}

// ---- Texts ----

TEST_F(static_fields, replacing_a_text)
{
    char *text = nullptr;
    const agent_log log({"kavdata::fruid", "trace"});
    replaceString(&text, "first", 32);
    EXPECT_STREQ(text, "first");
    replaceString(&text, "second", 32);
    EXPECT_STREQ(text, "second");
    replaceString(&text, nullptr, 32);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(log.debug_texts("kavdata::fruid"),
              (strings{"replaceString:old value:[NULL]\n", "replaceString:new value:[first]\n",
                       "replaceString:old value:[first]\n", "replaceString:new value:[second]\n",
                       "replaceString:old value:[second]\n", "src string NULL",
                       "replaceString:new value:[]\n"}));
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    free(text);
}

TEST_F(static_fields, a_text_keeps_one_character_less_than_its_maximum)
{
    char *text = nullptr;
    const agent_log log;
    replaceString(&text, "1234567", 8);
    EXPECT_STREQ(text, "1234567");
    replaceString(&text, "12345678", 8);
    EXPECT_STREQ(text, "1234567");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    replaceString(&text, "123456789", 8);
    EXPECT_STREQ(text, "1234567");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"replaceString:source string length (9)exceeds maximum "
                                          "(8) and will be truncated\n"});
    free(text);
}

TEST_F(static_fields, a_text_is_cut_between_characters)
{
    struct cut {
        const char *why;
        const char *text;
        const char *kept; // of a maximum of 8, thus 7 octets
    };
    const cut cuts[] = {
        {"fits", "12345\xC3\xA9", "12345\xC3\xA9"},
        {"two octets, one in", "123456\xC3\xA9", "123456"},
        {"a character ends with the field", "12345\xC3\xA9x", "12345\xC3\xA9"},
        {"one begins behind the field", "1234567\xC3\xA9", "1234567"},
        {"three octets, one in", "123456\xE2\x82\xAC", "123456"},
        {"three octets, two in", "12345\xE2\x82\xAC", "12345"},
        {"three octets, all in", "1234\xE2\x82\xAC#", "1234\xE2\x82\xAC"},
        {"four octets, three in", "1234\xF0\x9F\x94\xA5", "1234"},
        {"four octets, one in", "123456\xF0\x9F\x94\xA5", "123456"},
        {"nothing but the one", "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9", "\xC3\xA9\xC3\xA9\xC3\xA9"},
        // What was never UTF-8 stays, octet for octet.
        {"Latin-1",
         "123456\xE9"
         "ab",
         "123456\xE9"},
        {"no lead", "1234\x82\x82\x82\x82", "1234\x82\x82\x82"},
        {"nothing but continuations", "\x82\x82\x82\x82\x82\x82\x82\x82",
         "\x82\x82\x82\x82\x82\x82\x82"},
        {"the rest is missing",
         "12345\xE2\x82"
         "ab",
         "12345\xE2\x82"},
        {"too long a form of two", "123456\xC1\xBF", "123456\xC1"},
        {"too long a form of three", "12345\xE0\x9F\xBF", "12345\xE0\x9F"},
        {"too long a form of four", "1234\xF0\x8F\xBF\xBF", "1234\xF0\x8F\xBF"},
        {"half a pair", "12345\xED\xA0\x80", "12345\xED\xA0"},
        {"the other half", "12345\xED\xBF\xBF", "12345\xED\xBF"},
        {"above all characters", "1234\xF4\x90\x80\x80", "1234\xF4\x90\x80"},
        {"no lead at all", "123456\xF8\x88\x80\x80\x80", "123456\xF8"},
        {"a lead in vain before one", "12345\xC3\xC3\xA9", "12345\xC3"},
    };
    for (const cut &c : cuts) {
        char *text = nullptr;
        replaceString(&text, c.text, 8);
        EXPECT_STREQ(text, c.kept) << c.why;
        free(text);
    }
}

TEST_F(static_fields, identity_and_description_are_cut_between_characters)
{
    std::string euros;
    for (int i = 0; i < 90; i++) {
        euros += "\xE2\x82\xAC";
    }
    capi_fru_record record = fru();
    set_text(record.serial, "x" + euros.substr(0, 60));
    set_text(record.alias, euros.substr(0, 60));
    platform->frus["/SYS/X"] = record;
    owned_entry e("/SYS/X");
    EXPECT_EQ(snmp_read_fru(e.get()), 0);
    EXPECT_EQ(e->entPhysicalSerialNum, "x" + euros.substr(0, 30));
    EXPECT_EQ(e->entPhysicalAlias, euros.substr(0, 30));
    // A description of 256 octets: the last euro would end in the 256th.
    platform->default_description = "x" + euros.substr(0, 255);
    read_static_data(e.get(), plain);
    EXPECT_EQ(e->entPhysicalDescr, "x" + euros.substr(0, 252));
}

TEST_F(static_fields, no_memory_for_a_text_leaves_null)
{
    char *text = fake_system::heap_text("old");
    const agent_log log;
    fake_system::fail_allocation(1);
    replaceString(&text, "new", 8);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"replaceString:FAILED:calloc\n"});
}

// ---- Firmware revision ----

TEST_F(static_fields, without_a_version_file_the_revision_is_the_default)
{
    owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
    EXPECT_EQ(snmp_read_product_info(e.get()), 0);
    EXPECT_EQ(e->entPhysicalFirmwareRev, default_revision());
}

TEST_F(static_fields, the_first_line_of_the_version_file)
{
    EXPECT_EQ(revision_from("@(#)5.0.1\n"), "5.0.1\n");
    EXPECT_EQ(revision_from("@(#)5.0.1\nsecond\n"), "5.0.1\n");
    EXPECT_EQ(revision_from("@(#)5.0.1"), "5.0.1");
    EXPECT_EQ(revision_from("@abcd\n"), "d\n"); // only the '@' is looked at
}

TEST_F(static_fields, a_version_file_that_says_nothing_keeps_the_default)
{
    EXPECT_EQ(revision_from("5.0.1\n"), default_revision());
    EXPECT_EQ(revision_from(" @(#)5.0.1\n"), default_revision());
    EXPECT_EQ(revision_from("first\n@(#)5.0.1\n"), default_revision());
    EXPECT_EQ(revision_from(""), default_revision());
    EXPECT_EQ(revision_from("\n"), default_revision());
    EXPECT_EQ(revision_from(std::string("\0@(#)5.0.1\n", 11)), default_revision());
}

TEST_F(static_fields, a_short_first_line_is_safe)
{
    EXPECT_EQ(revision_from("@"), "");
    EXPECT_EQ(revision_from("@\n"), "");
    EXPECT_EQ(revision_from("@(#"), "");
    EXPECT_EQ(revision_from("@(#\n"), "");
    EXPECT_EQ(revision_from("@(#)"), "");
    EXPECT_EQ(revision_from("@(#)\n"), "\n");
}

TEST_F(static_fields, at_most_127_characters_are_read)
{
    const std::string line = "@(#)" + std::string(300, 'v') + "\n";
    EXPECT_EQ(revision_from(line), std::string(123, 'v'));
}

TEST_F(static_fields, the_version_file_is_closed)
{
    FILE *opened = nullptr;
    fake_system::on_fopen.set([&](const char *path, const char *mode) {
        EXPECT_STREQ(path, version_path);
        EXPECT_STREQ(mode, "r");
        static char content[] = "@(#)9.9\n";
        opened = fmemopen(content, sizeof content - 1, "r");
        return opened;
    });
    fake_system::on_stat.set([](const char *, struct stat *status) {
        status->st_mode = S_IFREG;
        return 0;
    });
    owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
    EXPECT_EQ(snmp_read_product_info(e.get()), 0);
    EXPECT_STREQ(e->entPhysicalFirmwareRev, "9.9\n");
    EXPECT_NE(opened, nullptr); // which LeakSanitizer would miss
}

TEST_F(static_fields, anything_but_a_file_is_not_opened)
{
    fake_system::on_stat.set([](const char *, struct stat *status) {
        status->st_mode = S_IFIFO;
        return 0;
    });
    owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
    EXPECT_EQ(snmp_read_product_info(e.get()), 0);
    EXPECT_EQ(e->entPhysicalFirmwareRev, default_revision());
    EXPECT_EQ(fake_system::on_fopen.calls(), 0U);
}

TEST_F(static_fields, a_version_file_that_cannot_be_opened_keeps_the_default)
{
    fake_system::on_stat.set([](const char *, struct stat *status) {
        status->st_mode = S_IFREG;
        return 0;
    });
    fake_system::on_fopen.set([](const char *, const char *) -> FILE * { return nullptr; });
    owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
    EXPECT_EQ(snmp_read_product_info(e.get()), 0);
    EXPECT_EQ(e->entPhysicalFirmwareRev, default_revision());
}

TEST_F(static_fields, a_version_file_that_cannot_be_reached_is_told)
{
    fake_system::on_stat.set([](const char *, struct stat *) {
        errno = EACCES;
        return -1;
    });
    for (const int error : {EACCES, ENOENT}) {
        fake_system::on_fopen.set([error](const char *, const char *) -> FILE * {
            errno = error;
            return nullptr;
        });
        const agent_log log;
        owned_entry e("/SYS", CAPI_TYPE_SYSTEM);
        EXPECT_EQ(snmp_read_product_info(e.get()), 0);
        EXPECT_EQ(e->entPhysicalFirmwareRev, default_revision());
        // Most hosts have none, so that is nothing to tell.
        EXPECT_EQ(log.texts(LOG_WARNING),
                  error == ENOENT ? strings()
                                  : strings{"snmp_read_product_info:/etc/static_conf/version.dat "
                                            "can not be opened: Permission denied\n"});
    }
}

// ---- get_static_fields ----

// Each capability bit alone, on a component of a type that means nothing: the
// fields that follow from the bits, before which all are marked.
TEST_F(static_fields, each_capability_bit_has_its_effect)
{
    for (int byte = 0; byte < 10; byte++) {
        for (int bit = 0; bit < 8; bit++) {
            const int mask = 1 << bit;
            SCOPED_TRACE(text_of("byte %d mask %#x", byte, static_cast<unsigned>(mask)));
            owned_entry e("/SYS/X", plain, {{byte, mask}});
            e->entPhysicalIsFRU = 90;
            e->equipmentCol2 = 91;
            e->holderCol1 = 92;
            e->holderCol3 = 93;
            e->circuitPackValue1 = 94;
            e->circuitPackValue2 = 95;
            platform.forget_calls();
            get_static_fields(e.get());
            const auto is = [&](int b, int m) { return byte == b && (mask & m) != 0; };
            const bool fru = is(4, 0x02) || is(6, 0x02);
            const bool power = is(3, 0x06) || is(9, 0x01);
            EXPECT_EQ(e->entPhysicalIsFRU, fru ? 1 : 90);
            EXPECT_EQ(e->equipmentCol2, is(0, 0x04) || is(3, 0x0E) ? 2 : 91);
            EXPECT_EQ(e->holderCol1, is(2, 0x08) ? 4 : 92);
            EXPECT_EQ(e->holderCol3, is(2, 0x08) ? 2 : 93);
            EXPECT_EQ(e->circuitPackValue1, fru || is(2, 0x02) || power ? 1 : 94);
            EXPECT_EQ(e->circuitPackValue2, power ? 1 : 95);
            EXPECT_EQ(platform.calls("capi_get_fru_info", "/SYS/X"), is(4, 0x02) ? 1U : 0U);
            EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);
        }
    }
}

TEST_F(static_fields, chassis_system_and_midplane_are_frus_without_fru_texts)
{
    for (const uint32_t type : {2U, 3U, 59U, 60U}) {
        platform->frus["/SYS/X"] = fru();
        owned_entry e("/SYS/X", type, {fru_info});
        platform.forget_calls();
        get_static_fields(e.get());
        EXPECT_EQ(e->entPhysicalIsFRU, 1);
        EXPECT_EQ(e->circuitPackValue1, 1);
        EXPECT_EQ(platform.calls("capi_get_fru_info"), type == 60 ? 1U : 0U) << type;
        EXPECT_EQ(e->entPhysicalModelName != nullptr, type == 60) << type;
    }
}

TEST_F(static_fields, a_fru_whose_texts_fail_is_a_fru)
{
    const agent_log log;
    build_one(plain, {fru_info});
    EXPECT_EQ(entry()->entPhysicalIsFRU, 1);
    EXPECT_EQ(entry()->circuitPackValue1, 1);
    EXPECT_EQ(log.texts(LOG_ERR),
              strings{"snmp_read_fru:FAILED:capi_get_fru_info for entPhysicalName /SYS/X\n"});
}

TEST_F(static_fields, a_holder_of_chassis_or_system_type)
{
    for (const auto &[type, kind] : {std::pair{2U, 5}, {3U, 5}, {59U, 4}, {14U, 4}, {200U, 4}}) {
        owned_entry e("/SYS/X", type, {{CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER}});
        get_static_fields(e.get());
        EXPECT_EQ(e->holderCol1, kind) << type;
        EXPECT_EQ(e->holderCol3, 2) << type;
    }
}

TEST_F(static_fields, a_drive_bay_knows_whether_it_is_filled)
{
    const auto bay = [&](const char *name, uint32_t type, uint8_t raw, uint16_t status) {
        capi_sensor_record record = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
        record.raw_reading = raw;
        record.reserved1 = 0xEE; // not looked at
        record.reading_status = status;
        platform->sensors[std::string(name) + "/PRSNT"] = record;
        owned_entry e(name, type, {{CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER}});
        get_static_fields(e.get());
        return e->holderCol3;
    };
    EXPECT_EQ(bay("/SYS/HDD0", 14, 1, 0), 1);
    EXPECT_EQ(bay("/SYS/HDD", 14, 1, 0), 1);
    EXPECT_EQ(bay("/SYS/HDD12", 14, 1, 0), 1);  // 10 characters
    EXPECT_EQ(bay("/SYS/HDD123", 14, 1, 0), 2); // 11
    EXPECT_EQ(bay("/SYS/HD0", 14, 1, 0), 2);
    EXPECT_EQ(bay("/SYS/hdd0", 14, 1, 0), 2);
    EXPECT_EQ(bay("X/SYS/HDD", 14, 1, 0), 2);
    EXPECT_EQ(bay("/SYS/HDD0", 15, 1, 0), 2);
    EXPECT_EQ(bay("/SYS/HDD0", 14, 0, 0), 2);
    EXPECT_EQ(bay("/SYS/HDD0", 14, 2, 0), 2);
    EXPECT_EQ(bay("/SYS/HDD0", 14, 1, 1), 2);
    EXPECT_EQ(bay("/SYS/HDD0", 14, 1, 256), 2);
    platform->fail["capi_get_sensor"] = -1;
    EXPECT_EQ(bay("/SYS/HDD0", 14, 1, 0), 2);
    platform->fail.clear();
    platform.forget_calls();
    bay("/SYS/HDD7", 14, 1, 0);
    EXPECT_EQ(platform.calls("capi_get_sensor", "/SYS/HDD7/PRSNT"), 1U);
    bay("/SYS/HDD123", 14, 1, 0);
    EXPECT_EQ(platform.calls("capi_get_sensor"), 1U);
    // A bay that is no holder is not asked.
    owned_entry e("/SYS/HDD7", 14);
    e->holderCol3 = 4;
    get_static_fields(e.get());
    EXPECT_EQ(e->holderCol3, 4);
    EXPECT_EQ(platform.calls("capi_get_sensor"), 1U);
}

TEST_F(static_fields, no_sensor_is_ever_of_the_discrete_kind)
{
    for (int32_t sensor_class = 0; sensor_class <= 4; sensor_class++) {
        for (int32_t type = 0; type <= 20; type++) {
            capi_sensor_record record = threshold_sensor(type, 1.0F);
            record.sensor_class = sensor_class;
            build_sensor(record);
            EXPECT_NE(entry()->sensorKind, 3);
        }
    }
}

} // namespace
