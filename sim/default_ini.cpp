// The default board's product INI: every key of the product record, with the
// values of a typical board of the family.
#include "sim/default_ini.h"

#include "sim/board.h"

namespace vexa::sim {

const char *default_product_ini()
{
    return R"INI([product]
product = QR5PLUS

[led]
led_sys = 34
led_network = 35
led_4gwork = 36
led_position = 37
led_switch = 38
led_running = 39
led_tri_red = 40
led_tri_green = 41
led_tri_blue = 42
led_cloud = 43

[fan]
simple_fan_1 = 50

[serial]
serial_lora_1 = /dev/ttyS1
serial_hdmi_1 = /dev/ttyS2
serial_232_1 = /dev/ttyS3
serial_232_2 = /dev/ttyS4
serial_485_1 = /dev/ttyS5
serial_485_2 = /dev/ttyS6
serial_ttl_1 = /dev/ttyS7
serial_ttl_2 = /dev/ttyS8

[watchdog]
wdt_dev = /dev/watchdog
wdt_timeout = 10
wdt_interval = 2

[block]
hdmi_edid_path = /dev/block/by-name/defined
fpga_program_path = /dev/block/by-name/fpga_program
fpga_parameter = /dev/block/by-name/screen
hex_parameter = /vendor/etc/fpga/hex_parameter.bin

[protocol]
fpga_protocol_type = 1

[fpga]
fpga_drv_path = /dev/fpga_load
fpga_fw_path = /vendor/etc/fpga/fpga_fw.bin
fpga_fw_version = V1.0.0
fpga_drv_id = 0
fpga_control_gpio = 60
fpga_config_gpio = 61
fpga_done_gpio = 62

[ops]
ops_usb = 70
ops_switch = 71
ops_on = 72
ops_control = 73
ops_detect = 74

[misc]
factory_tools = 80
interior_relay = 81
peripheral_relay_1 = 82
peripheral_relay_2 = 83
peripheral_relay_3 = 84
peripheral_relay_4 = 85
pc_ctrl = 86
sub_card_led = 87
headphone_power = 88
external_relay_num = 4
4g_reset = 89
4g_power = 90

[otg]
otg_mode = 0

[mcu_wdt]
mcu_wdt_switch = 91
mcu_wdt_pulse = 1
mcu_wdt_startup_type = 1

[usb]
usb_select_0 = 92
usb_select_1 = 93
usb1_path = /sys/class/vexagpios/USB1_EN/value
usb2_path = /sys/class/vexagpios/USB2_EN/value
usb3_path = /sys/class/vexagpios/USB3_EN/value
usb4_path = /sys/class/vexagpios/USB4_EN/value

[spi]
spi_fpga = /dev/spidev0.0

[rtc]
rtc_device = /dev/rtc0

[i2c]
i2c_audio_0_path = /dev/i2c-1
i2c_audio_0_device = 0x1a
i2c_audio_0_enable_addr = 0x02
i2c_audio_0_channel_addr = 0x03
i2c_audio_0_volume_addr = 0x04
i2c_audio_0_status_addr = 0x05
i2c_audio_0_enable = 0x01
i2c_audio_0_disable = 0x00
i2c_audio_1_path = /dev/i2c-2
i2c_audio_1_device = 0x1b
i2c_audio_1_enable_addr = 0x02
i2c_audio_1_channel_addr = 0x03
i2c_audio_1_volume_addr = 0x04
i2c_audio_1_status_addr = 0x05
i2c_audio_1_enable = 0x01
i2c_audio_1_disable = 0x00
i2c_rtc_0_path = /dev/i2c-3
i2c_rtc_0_device = 0x51
i2c_rtc_0_status_addr = 0x02
i2c_clock_0_path = /dev/i2c-3
i2c_clock_0_device = 0x68
i2c_clock_0_status_addr = 0x0f

[adc]
adc_board_config_vref = 1.8
adc_board_config_n = 10
adc_board_id = /sys/bus/iio/devices/iio:device0/in_voltage1_raw
adc_board_voltage = /sys/bus/iio/devices/iio:device0/in_voltage2_raw
adc_board_voltage_r1 = 100000
adc_board_voltage_r2 = 10000
adc_board_temperature = /sys/bus/iio/devices/iio:device0/in_voltage3_raw
adc_board_temperature_r1 = 10
adc_board_temperature_vin = 1.8

[lora]
lora_check = 94

[display]
screen_mode = /sys/class/display/mode
hdmi_in_1_path = /sys/class/hdmirx/hdmi_in_1/status
hdmi_in_2_path = /sys/class/hdmirx/hdmi_in_2/status
hdmi_in_3_path = UNDEF
hdmi_in_4_path = UNDEF
hdmi_out_1_path = /sys/class/drm/card0-HDMI-A-1/status
hdmi_out_2_path = /sys/class/drm/card0-HDMI-A-2/status
hdmi_out_3_path = UNDEF
hdmi_out_4_path = UNDEF

[network]
phy_num = 2
phy1_state_cmd = /vendor/bin/phytool read eth0 0x1d 0x1f04
phy2_state_cmd = /vendor/bin/phytool read eth1 0x1d 0x1f04
phy3_state_cmd = UNDEF
phy4_state_cmd = UNDEF

[mcu]
mcu_fw_path = /vendor/etc/mcu/mcu_fw.bin
mcu_fw_version = V1.0.2.0
mcu_type = 1
mcu_serial = gd32f303
mcu_sock_path = /dev/socket/vexa_mcu
mcu_uart_path = /dev/ttyS9
mcu_baud_rate = 115200

[self_test]
self_test_items = 1-2-3-4-5-6-7-8-9-10-11-12
audio_num = 1
)INI";
}

// The default board's product INI files and product information. Module id
// 38432 has a row in every table the library keys by module id (resolution
// limits, FPGA firmware update, network detection), so every operation works
// on the default board.
VEXA_SIM_SEEDER(product_ini)
{
    board.write_file("/vendor/etc/product.ini", default_product_ini());
    board.write_file("/vendor/etc/product_pz25.ini", default_product_ini());
    board.set_module_id("38432");
}

} // namespace vexa::sim
