#pragma once

#include <string_view>

/// The configuration of a box that has none: two comment lines and 88 settings. Many are carried
/// for other software of the device and never read by the agent.
inline constexpr std::string_view kDefaultConfiguration =
    R"(#all properties of vci agent
#Thu May 01 09:30:24 GMT 2014
com.tembra.lusora.ors.requester.AgentRequester.creator=com.tembra.lusora.ors.requester.VCIRequester
update.agent.image.path=/tmp/
tjws.outstream=com.tembra.lusora.agent.impl.configuration.DebugLogStream
slp.uri.soap=/zel/services/ConnectorService
tjws.http-port=5302
log.properties=/config/log4j.properties
tjws.webappdir=/app/tembra/conf
slp.ors.discover.lost.sleep=10000
ors.manager.service.name=manager
com.tembra.lusora.rko.RKOFacade.creator=com.tembra.lusora.rko.impl.RKOFacadeImpl
wlan.conf.infra.channel=-1
soap.request.presignin.file=/app/tembra/conf/presignin-prepared.xml
com.tembra.lusora.agent.impl.configuration.AgentConfiguration.ips=
network.config.static.ip=192.168.68.41
network.config.static.gateway=192.168.68.41
update.image.filename.id=FILENAME
slp.ors.discover.timeout.unicast=15000
managers.list.expiration.time=180000
time.wait.slp.init=100
com.tembra.lusora.agent.impl.BootHandler.creator=com.tembra.lusora.agent.bootstrap.BootHandlerImpl
com.hux.kitset.sysapi.MainFacade.creator=com.tembra.lusora.vci.adapter.VCIMainFacadeImpl
ors.manager.https.port=23007
country.code=
vci.agent.https.port=5302
tavo.start.time=201405010930
tjws.realm=/config/basic.txt
com.tembra.lusora.configuration.path=/config/agent.configuration
com.tembra.lusora.vci.VCIFacade.logger=OFF
com.tembra.lusora.agent.ConnectorFacade.creator=com.tembra.lusora.agent.impl.ZELAgentBasicImpl
tjws.socket.factory=
com.tembra.lusora.agent.network.NetConfigChangeable.logger=OFF
vci.agent.http.port=5302
network.config.nic=0
com.tembra.lusora.rko.RKOFacade.logger=OFF
slp.ors.discover.timeout.multicast=5000
tjws.doublehead=
wlan.conf.adhoc.ssid=
slp.ip.bind=all
java.protocol.handler.pkgs=
wlan.conf.infra.ssid=
wlan.conf.infra.security.level=-1
slp.port=427
com.tembra.lusora.ors.requester.OrsManagerFacade.logger=OFF
tavo.hostname=TAVO
tjws.keystoreFile=
tjws.nohup=-nohup
network.config.static.netmask=255.255.0.0
network.config.discover.mode=3
UNDEFINED=DOES\ NOT\ EXIST
tjws.bind-address=0.0.0.0
wlan.conf.adhoc.channel=-1
wlan.conf.adhoc.security.level=-1
slp.uri.rko=/rKo
vci.agent.context.path=/zel/services/ConnectorService
tjws.https-port=23008
wlan.conf.infra.credentials=
soap.request.selftestresult.file=/app/tembra/conf/getSelftestResult-prepared.xml
ors.manager.secure.use=false
counter.write.cycles.flash=1
vci.agent.secure.use=false
com.tembra.lusora.ors.requester.AgentRequester.logger=OFF
tavo.color=white
wlan.conf.adhoc.band=-1
com.tembra.lusora.ors.requester.OrsManagerFacade.creator=com.tembra.lusora.ors.requester.SimpleOrsManager
tjws.keystoreType=
ors.user=webserviceuser1
slp.zel.manger.port=11352
com.tembra.lusora.vci.VCIFacade.creator=com.tembra.lusora.vci.TavoVCIFacadeImpl
wlan.conf.infra.band=-1
rko.emulate.ops=false
slp.ors.discover.delay=1000
com.tembra.lusora.agent.network.NetConfigChangeable.creator=com.tembra.lusora.agent.network.NetConfigChange
ors.manager.context.path=/webservices/manager
manager.base.timeout=35000
tjws.log.dir=/tmp
com.hux.kitset.sysapi.MainFacade.logger=OFF
attempt.wait.slp.init=1
tjws.keystorePass=
ors.password=HJKVute
wlan.last.used.configuration=Infrastructure
vci.agent.service.name=ZELConnector
jni.tavo.library=JTAVO
update.digest.checksum.id=MD5CHKSM
ors.manager.http.port=23005
soap.request.signin.file=/app/tembra/conf/signin-prepared.xml
update.digest.algorithm=MD5
wlan.conf.adhoc.credentials=
tjws.errorstream=com.tembra.lusora.agent.impl.configuration.ErrorLogStream
)";
