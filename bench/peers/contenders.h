// Peers whose headers want flags of their own are compiled apart; each file registers its contenders.
#pragma once

void RegisterPcapParse();
void RegisterDpdkParse();
void RegisterTinsParse();
void RegisterDpdkChecksumsO2();
void RegisterDpdkChecksumsO3();
void RegisterDpdkHashTable();
