<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US" sourcelanguage="en_US">
<context>
    <name>CertificateList</name>
    <message numerus="yes">
        <source>%n certificate(s)</source>
        <translation>
            <numerusform>%n certificate</numerusform>
            <numerusform>%n certificates</numerusform>
        </translation>
    </message>
</context>
</TS>
