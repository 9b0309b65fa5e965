"""Start-up as a person at the console and the sibling processes see it."""

import nimbus

CONSOLE = ("Loading config file... done\n"
           "Init network... done\n"
           "Data lost\n"
           "Video lost\n"
           "Init data source... done\n"
           "Init video source... done\n")


def test_console_of_a_clean_start(start):
    service = start()
    assert service.err.text() == CONSOLE
    assert service.out.bytes() == nimbus.BANNER


def test_missing_configuration_file(start):
    service = start(conf=None)
    assert service.err.text() == CONSOLE.replace("file... done", "file... failed")


def test_splash(service, region):
    assert region.text(*region.PRODUCT_NAME) == "Tervado Nimbus"
    assert region.text(*region.VERSION_TEXT) == "v.0.3.7"
